// Helpers of the engine tests: a recorder behind the engine's plain
// callbacks, and a wrapper run in hosted mode on a pump thread of the test
// (the way the service runs it on its main thread) over a fake port.
#pragma once

#include "engine/CBrowserClient.h"
#include "engine/CBrowserWrapper.h"
#include "tests/engine/FakeEnginePort.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

struct AudioCall {
    int streamId;
    unsigned int size;
    unsigned int sampleRate;
    unsigned int channels;
    unsigned int bitsPerSample;
    bool hasData;
};

// What the engine handed to the service side's callbacks; the callbacks'
// context points at it.
struct CallbackRecorder {
    std::mutex mutex;
    std::vector<unsigned int> frameSizes;
    std::vector<AudioCall> audioCalls;
    std::vector<std::string> urlChanges;

    static bool Frame(unsigned char* data, unsigned int size, void* context)
    {
        auto* self = static_cast<CallbackRecorder*>(context);
        std::lock_guard<std::mutex> guard(self->mutex);
        if (data && size)
            (void)data[size - 1]; // the whole buffer must be readable
        self->frameSizes.push_back(size);
        return true;
    }
    static bool Audio(int streamId, unsigned char* data, unsigned int size, unsigned int sampleRate,
                      unsigned int channels, unsigned int bitsPerSample, void* context)
    {
        auto* self = static_cast<CallbackRecorder*>(context);
        std::lock_guard<std::mutex> guard(self->mutex);
        self->audioCalls.push_back({streamId, size, sampleRate, channels, bitsPerSample, data != nullptr});
        return true;
    }
    static bool UrlChange(const std::string& url, const void* context)
    {
        auto* self = static_cast<CallbackRecorder*>(const_cast<void*>(context));
        std::lock_guard<std::mutex> guard(self->mutex);
        self->urlChanges.push_back(url);
        return true;
    }

    std::vector<unsigned int> Frames()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return frameSizes;
    }
    std::vector<AudioCall> AudioCalls()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return audioCalls;
    }
    std::vector<std::string> UrlChanges()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return urlChanges;
    }
};

inline double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Polls `condition` every millisecond for up to timeoutMs.
inline bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 2000)
{
    const auto start = std::chrono::steady_clock::now();
    while (!condition()) {
        if (SecondsSince(start) * 1000.0 > timeoutMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A wrapper in hosted mode over the installed port: a pump thread prepares
// the engine and calls ProcessCEFThread every millisecond until the object
// goes.
class HostedEngine {
public:
    HostedEngine()
    {
        m_Wrapper.CreateBrowserClientApplication();
        std::promise<bool> prepared;
        std::future<bool> started = prepared.get_future();
        m_PumpThread = std::thread([this, &prepared] {
            prepared.set_value(m_Wrapper.PrepareCEFThread());
            while (!m_bStop) {
                m_Wrapper.ProcessCEFThread();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        m_bStarted = started.get();
    }
    ~HostedEngine()
    {
        m_bStop = true;
        m_PumpThread.join();
        m_Wrapper.DeleteBrowserClientApplication();
    }

    bool Started() const { return m_bStarted; }
    CBrowserWrapper& Wrapper() { return m_Wrapper; }
    CBrowserClient& Client() { return *m_Wrapper.GetBrowserClient(); }

    // Starts an 800 x 600 browser at 30 frames per second whose callbacks
    // go to `recorder`.
    int Open(CallbackRecorder& recorder, const std::string& url = "https://overlay.test/page.html",
             unsigned int width = 800, unsigned int height = 600)
    {
        return m_Wrapper.StartBrowser(url, width, height, 30, &CallbackRecorder::Frame, &CallbackRecorder::Audio,
                                      &recorder, nullptr, &CallbackRecorder::UrlChange, false);
    }

private:
    CBrowserWrapper m_Wrapper;
    std::thread m_PumpThread;
    std::atomic<bool> m_bStop{false};
    bool m_bStarted = false;
};

} // namespace SLF_ChromiumEmbeddedFramework
