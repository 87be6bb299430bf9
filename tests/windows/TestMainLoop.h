// A thread that runs the GLib main loop on the global default context: the
// "main thread" that the window manager starts and pumps the engine on.
#pragma once

#include "windows/SLFCefMainThread.h"

#include <glib.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class TestMainLoop {
public:
    TestMainLoop()
        : m_loop(g_main_loop_new(g_main_context_default(), FALSE))
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_thread = std::thread([this] {
            g_main_context_acquire(g_main_context_default());
            {
                std::lock_guard<std::mutex> inner(m_lock);
                m_running = true;
                m_started.notify_one();
            }
            g_main_loop_run(m_loop);
            g_main_context_release(g_main_context_default());
        });
        m_started.wait(guard, [this] { return m_running; });
    }
    ~TestMainLoop()
    {
        SLFCefRunOnMainAndWait([this] { g_main_loop_quit(m_loop); });
        m_thread.join();
        // Leftover idles of finished work (bounded: a repeating source may
        // still be attached).
        for (int i = 0; i < 100 && g_main_context_iteration(g_main_context_default(), FALSE); ++i) {
        }
        g_main_loop_unref(m_loop);
    }
    TestMainLoop(const TestMainLoop&) = delete;
    TestMainLoop& operator=(const TestMainLoop&) = delete;

    void run(const std::function<void()>& work) { SLFCefRunOnMainAndWait(work); }

private:
    GMainLoop* m_loop;
    std::mutex m_lock;
    std::condition_variable m_started;
    bool m_running = false;
    std::thread m_thread;
};
