// Plain or recursive mutex. Its scoped lock and DualMutexLock live in
// CNplThreadMutexLock.h, included here for every user of the mutex.
#pragma once

#include <pthread.h>

class CNplThreadMutex {
public:
    explicit CNplThreadMutex(bool recursive = false);
    virtual ~CNplThreadMutex();
    CNplThreadMutex(const CNplThreadMutex&) = delete;
    CNplThreadMutex& operator=(const CNplThreadMutex&) = delete;

    // pthread result codes.
    virtual int Lock();
    virtual int UnLock();
    // True when the lock was taken.
    virtual bool TryLock();

    pthread_mutex_t* GetMutex() { return &m_Mutex; }

private:
    pthread_mutex_t m_Mutex;
};

#include "platform/CNplThreadMutexLock.h"
