// A detached POSIX thread running one user function, with a cooperative stop.
#pragma once

#include <atomic>
#include <pthread.h>
#include <string>

typedef void* (*NplThreadFunc)(void*);

// The thread interface. It is abstract: its destructor only ever runs as
// part of a derived object's destruction.
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
    // Flags polled across threads without a lock (StopThread polls
    // m_bRunning every 10 ms, the user function polls
    // m_bTerminationRequested). The store that clears m_bRunning is the
    // thread's last touch of the object and is a release, so an owner that
    // sees it cleared may delete the object.
    std::atomic<bool> m_bRunning;
    std::atomic<bool> m_bTerminationRequested;
    std::atomic<int> m_nThreadId;
    std::string m_strName;
};
