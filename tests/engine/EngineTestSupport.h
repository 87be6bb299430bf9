// Helpers of the engine tests: a recorder behind the engine's callbacks, and
// a wrapper in hosted mode pumped by a thread of the test (as the service's
// main thread does) over the installed fake port.
#pragma once

#include "tests/support/Wait.h"
#include "engine/CBrowserClient.h"
#include "engine/CBrowserWrapper.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

struct AudioCall {
    int streamId;
    unsigned int size, sampleRate, channels, bitsPerSample;
    bool hasData;
    bool operator==(const AudioCall&) const = default;
};

struct CallbackRecorder {
    std::mutex mutex;
    std::vector<unsigned int> frameSizes;
    std::vector<AudioCall> audioCalls;
    std::vector<std::string> urlChanges;

    // Appends to a list of the recorder behind `context`.
    template <typename T>
    static bool Add(const void* context, std::vector<T> CallbackRecorder::*list, T value)
    {
        auto* self = static_cast<CallbackRecorder*>(const_cast<void*>(context));
        std::lock_guard<std::mutex> guard(self->mutex);
        (self->*list).push_back(std::move(value));
        return true;
    }
    static bool Frame(unsigned char* data, unsigned int size, void* context)
    {
        if (data && size)
            (void)data[size - 1]; // the whole buffer must be readable
        return Add(context, &CallbackRecorder::frameSizes, size);
    }
    static bool Audio(int streamId, unsigned char* data, unsigned int size, unsigned int sampleRate,
                      unsigned int channels, unsigned int bitsPerSample, void* context)
    {
        return Add(context, &CallbackRecorder::audioCalls,
                   AudioCall {streamId, size, sampleRate, channels, bitsPerSample, data != nullptr});
    }
    static bool UrlChange(const std::string& url, const void* context)
    {
        return Add(context, &CallbackRecorder::urlChanges, url);
    }
    template <typename T>
    T Copy(const T& field)
    {
        std::lock_guard<std::mutex> guard(mutex);
        return field;
    }
    std::vector<unsigned int> Frames() { return Copy(frameSizes); }
    std::vector<AudioCall> AudioCalls() { return Copy(audioCalls); }
    std::vector<std::string> UrlChanges() { return Copy(urlChanges); }
};

inline double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A width x height BGRA image painted into the browser, as the engine does.
inline void Paint(CBrowserClient& client, EngineBrowserRef browser, int width, int height)
{
    std::vector<uint8_t> image(static_cast<size_t>(width) * static_cast<size_t>(height) * 4, 0x80);
    client.OnPaint(browser, image.data(), width, height);
}

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
        m_bStop = true, m_PumpThread.join();
        m_Wrapper.DeleteBrowserClientApplication();
    }

    bool Started() const { return m_bStarted; }
    CBrowserWrapper& Wrapper() { return m_Wrapper; }
    CBrowserClient& Client() { return *m_Wrapper.GetBrowserClient(); }

    int Open(CallbackRecorder& recorder, const std::string& url = "https://overlay.test/page.html")
    {
        return m_Wrapper.StartBrowser(url, 800, 600, 30, &CallbackRecorder::Frame, &CallbackRecorder::Audio, &recorder,
                                      nullptr, &CallbackRecorder::UrlChange, false);
    }

private:
    CBrowserWrapper m_Wrapper;
    std::thread m_PumpThread;
    std::atomic<bool> m_bStop {false};
    bool m_bStarted = false;
};

// A hosted engine over a fake port installed for each test.
class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.Install();
        m_Engine = std::make_unique<HostedEngine>();
        ASSERT_TRUE(m_Engine->Started());
    }
    CBrowserWrapper& Wrapper() { return m_Engine->Wrapper(); }
    CBrowserClient& Client() { return m_Engine->Client(); }

    FakeEnginePort m_Port;
    CallbackRecorder m_Recorder;
    std::unique_ptr<HostedEngine> m_Engine; // goes first
};

} // namespace SLF_ChromiumEmbeddedFramework
