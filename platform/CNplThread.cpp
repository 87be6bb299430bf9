#include "platform/CNplThread.h"

#include "dbg/dbg.h"
#include "platform/NplDebug.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

INplThread::~INplThread() = default;

CNplThread::CNplThread(bool autoDelete)
    : m_hThread(0),
      m_pfnThreadFunc(nullptr),
      m_pThreadArg(nullptr),
      m_bAutoDelete(autoDelete),
      m_bCreated(false),
      m_bRunning(false),
      m_bTerminationRequested(false),
      m_nThreadId(-1),
      m_nLiveProcedures(0)
{
}

CNplThread::~CNplThread()
{
    // Waits up to 10 s for a thread that is still to start or inside its
    // function; one that does not end is reported and abandoned, never
    // forced. Anything thrown on the way ends the process (destructors are
    // noexcept).
    if (m_nLiveProcedures.load(std::memory_order_acquire) > 0)
        StopThread(10000, true, false);
}

bool CNplThread::CreateThread(NplThreadFunc function, void* argument, const char* name)
{
    if (!function)
        return false;
    m_pfnThreadFunc = function;
    m_pThreadArg = argument;
    m_strName = name ? name : "";
    m_bTerminationRequested.store(false, std::memory_order_relaxed);

    // Detached: the thread is never joined; StopThread polls its running
    // flag instead.
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // m_bCreated is set before the thread can run: an auto-delete object may
    // be gone by the time pthread_create returns, so nothing of it is
    // touched afterwards unless the create failed.
    m_bCreated = true;
    m_nLiveProcedures.fetch_add(1, std::memory_order_relaxed);
    const int rc = pthread_create(&m_hThread, &attr, &CNplThread::ThreadProc_Static, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        m_bCreated = false;
        m_nLiveProcedures.fetch_sub(1, std::memory_order_relaxed);
    }
    return rc == 0;
}

void CNplThread::RequestTermination()
{
    m_bTerminationRequested.store(true, std::memory_order_relaxed);
}

bool CNplThread::IsRunning()
{
    return m_bRunning.load(std::memory_order_acquire);
}

bool CNplThread::IsTerminationRequested()
{
    return m_bTerminationRequested.load(std::memory_order_relaxed);
}

bool CNplThread::StopThread(int timeoutMs, bool breakIfNotStopped, bool forceKill)
{
    RequestTermination();

    const int64_t timeout = (timeoutMs < 0) ? 0x7FFFFFFF : timeoutMs;
    // A thread counts as running from CreateThread until its procedure has
    // finished with the object, so a stop before the thread has started
    // waits for it like for a running one.
    auto finished = [this] { return m_nLiveProcedures.load(std::memory_order_acquire) == 0; };
    if (timeout > 0) {
        // A poll every 10 ms; nothing is signalled.
        const int64_t startMs = NplTime_GetMonotonicNanoseconds() / 1000000;
        while (!finished() && NplTime_GetMonotonicNanoseconds() / 1000000 - startMs < timeout)
            usleep(10000);
    }

    bool stopped = finished();
    const int id = m_nThreadId.load(std::memory_order_relaxed);
    if (!stopped)
        NPL_DBGPRINTF(NplDebugModule(), 1, "NPL thread %d (0x%04X) (%s) could not be stopped.", id,
                      static_cast<unsigned>(id), m_strName.c_str());
    if (breakIfNotStopped && !stopped)
        BreakIntoDebugger();
    if (stopped || !forceKill) {
        ResetHandle();
        return stopped;
    }

    NPL_DBGPRINTF(NplDebugModule(), 1, "NPL thread %d (0x%04X) (%s) could not be stopped. Force kill it", id,
                  static_cast<unsigned>(id), m_strName.c_str());
    if (m_hThread != 0) {
        // Signal 0 only tests that the thread exists: it keeps running and
        // is abandoned below, with a result of true while it exists.
        const int rc = pthread_kill(m_hThread, 0);
        stopped = (rc == 0);
        NPL_DBGPRINTF(NplDebugModule(), 3, "Force kill returned with %d", rc);
    }
    ResetHandle();
    return stopped;
}

void CNplThread::ResetHandle()
{
    m_hThread = 0;
    m_bRunning.store(false, std::memory_order_relaxed);
    m_bCreated = false;
}

int CNplThread::GetCurrentThreadId()
{
    return NplThreading_GetThreadId();
}

void CNplThread::SetCurrentThreadName(const char* name)
{
    // The "NPL " form is built, but the thread carries the plain name.
    char formatted[128];
    memset(formatted, 0, sizeof formatted);
    snprintf(formatted, sizeof formatted, "NPL %s", name ? name : "");
    if (name)
        pthread_setname_np(pthread_self(), name);
}

void CNplThread::GetCurrentThreadName(char* buffer, int size)
{
    if (!buffer || size <= 0)
        return;
    buffer[0] = 0;
    pthread_getname_np(pthread_self(), buffer, static_cast<size_t>(size));
}

void* CNplThread::ThreadProc_Static(void* argument)
{
    if (!argument) {
        BreakIntoDebugger();
        return nullptr;
    }
    CNplThread* self = static_cast<CNplThread*>(argument);
    // Read before the user function runs: once ThreadProc has given the
    // object up, an owner may already have destroyed a non-auto-delete
    // object. Until then the owner waits (m_nLiveProcedures).
    const bool autoDelete = self->m_bAutoDelete;
    void* result = self->ThreadProc();
    if (autoDelete)
        delete self;
    return result;
}

void* CNplThread::ThreadProc()
{
    m_bRunning.store(true, std::memory_order_relaxed);
    m_nThreadId.store(GetCurrentThreadId(), std::memory_order_relaxed);
    void* result = m_pfnThreadFunc ? m_pfnThreadFunc(m_pThreadArg) : nullptr;
    m_nThreadId.store(-1, std::memory_order_relaxed);
    m_bRunning.store(false, std::memory_order_release);
    // The last touch of the object by this thread.
    m_nLiveProcedures.fetch_sub(1, std::memory_order_release);
    return result;
}
