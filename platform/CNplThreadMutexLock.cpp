#include "platform/CNplThreadMutexLock.h"

#include "platform/CNplThreadMutex.h"

#include <unistd.h>
#include <utility>

CNplThreadMutexLock::CNplThreadMutexLock(CNplThreadMutex& mutex, bool lockNow)
    : m_pMutex(mutex.GetMutex()),
      m_bLocked(false)
{
    if (lockNow)
        Lock();
}

CNplThreadMutexLock::~CNplThreadMutexLock()
{
    if (m_bLocked)
        pthread_mutex_unlock(m_pMutex);
}

void CNplThreadMutexLock::Lock()
{
    if (!m_bLocked) {
        pthread_mutex_lock(m_pMutex);
        m_bLocked = true;
    }
}

bool CNplThreadMutexLock::TryLock()
{
    if (!m_bLocked)
        m_bLocked = (pthread_mutex_trylock(m_pMutex) == 0);
    return m_bLocked;
}

void CNplThreadMutexLock::UnLock()
{
    if (m_bLocked) {
        pthread_mutex_unlock(m_pMutex);
        m_bLocked = false;
    }
}

void DualMutexLock(CNplThreadMutexLock& first, CNplThreadMutexLock& second)
{
    if (first.GetMutex() == second.GetMutex() || second.IsLocked()) {
        first.Lock();
        return;
    }
    if (first.IsLocked()) {
        second.Lock();
        return;
    }
    CNplThreadMutexLock* a = &first;
    CNplThreadMutexLock* b = &second;
    // The counter is counted down but does not end the loop: every failed
    // round sleeps 10 ms, for as long as it takes.
    int counter = 5;
    for (;;) {
        if (a->TryLock()) {
            if (b->TryLock())
                return;
            a->UnLock();
        }
        std::swap(a, b);
        if (counter > 0)
            --counter;
        usleep(10000);
    }
}
