// Plain or recursive mutex, its scoped lock, and taking two locks at once.
#pragma once

#include <pthread.h>

class CNplThreadMutex {
public:
    explicit CNplThreadMutex(bool recursive = false);
    virtual ~CNplThreadMutex();
    CNplThreadMutex(const CNplThreadMutex&) = delete;
    CNplThreadMutex& operator=(const CNplThreadMutex&) = delete;

    virtual int Lock();
    virtual int UnLock();
    // True when the lock was taken.
    virtual bool TryLock();

    pthread_mutex_t* GetMutex() { return &m_Mutex; }

private:
    pthread_mutex_t m_Mutex;
};

class CNplThreadMutexLock {
public:
    CNplThreadMutexLock(CNplThreadMutex& mutex, bool lockNow = true);
    ~CNplThreadMutexLock();
    CNplThreadMutexLock(const CNplThreadMutexLock&) = delete;
    CNplThreadMutexLock& operator=(const CNplThreadMutexLock&) = delete;

    void Lock();
    bool TryLock();
    void UnLock();
    bool IsLocked() const { return m_bLocked; }
    pthread_mutex_t* GetMutex() const { return m_pMutex; }

private:
    pthread_mutex_t* m_pMutex;
    bool m_bLocked;
};

// Takes both locks without deadlock (see the implementation for the exact
// protocol).
void DualMutexLock(CNplThreadMutexLock& first, CNplThreadMutexLock& second);
