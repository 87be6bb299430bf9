// The "main thread": a GLib main loop on the global default context.
#pragma once

#include "windows/SLFCefMainThread.h"

#include <glib.h>

#include <functional>
#include <thread>

class TestMainLoop {
public:
    TestMainLoop()
    {
        // Running means the loop thread owns the default context.
        while (!g_main_loop_is_running(m_loop))
            g_usleep(100);
    }
    ~TestMainLoop()
    {
        SLFCefRunOnMainAndWait([this] { g_main_loop_quit(m_loop); });
        m_thread.join();
        // Leftover idles (bounded: a repeating source may still be attached).
        for (int i = 0; i < 100 && g_main_context_iteration(g_main_context_default(), FALSE); ++i) {
        }
        g_main_loop_unref(m_loop);
    }
    TestMainLoop(const TestMainLoop&) = delete;
    TestMainLoop& operator=(const TestMainLoop&) = delete;

    void run(const std::function<void()>& work) { SLFCefRunOnMainAndWait(work); }

private:
    GMainLoop* m_loop = g_main_loop_new(g_main_context_default(), FALSE);
    std::thread m_thread {[this] { g_main_loop_run(m_loop); }};
};
