// A detached POSIX thread running one user function, with a cooperative stop.
#pragma once

#include <atomic>
#include <pthread.h>
#include <string>

typedef void* (*NplThreadFunc)(void*);

class INplThread {
public:
    virtual ~INplThread();
    virtual bool CreateThread(NplThreadFunc function, void* argument, const char* name) = 0;
    virtual void RequestTermination() = 0;
    virtual bool StopThread(int timeoutMs, bool breakIfNotStopped, bool forceKill) = 0;
    virtual bool IsRunning() = 0;
    virtual bool IsTerminationRequested() = 0;
};

class CNplThread : public INplThread {
public:
    explicit CNplThread(bool autoDelete);
    ~CNplThread() override;

    bool CreateThread(NplThreadFunc function, void* argument, const char* name) override;
    void RequestTermination() override;
    bool StopThread(int timeoutMs, bool breakIfNotStopped, bool forceKill) override;
    bool IsRunning() override;
    bool IsTerminationRequested() override;

    int GetThreadId() const { return m_nThreadId; }
    const std::string& GetName() const { return m_strName; }
    void ResetHandle();

    static int GetCurrentThreadId();
    static void SetCurrentThreadName(const char* name);
    static void GetCurrentThreadName(char* buffer, int size);

private:
    static void* ThreadProc_Static(void* argument);
    void* ThreadProc();

    pthread_t m_hThread;
    NplThreadFunc m_pfnThreadFunc;
    void* m_pThreadArg;
    bool m_bAutoDelete;
    bool m_bCreated;
    // Flags polled across threads (StopThread polls m_bRunning, the user
    // function polls m_bTerminationRequested); relaxed atomics, no ordering.
    std::atomic<bool> m_bRunning;
    std::atomic<bool> m_bTerminationRequested;
    std::atomic<int> m_nThreadId;
    std::string m_strName;
};
