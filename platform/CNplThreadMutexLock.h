// Scoped lock on a CNplThreadMutex, and taking two such locks at once.
#pragma once

#include <pthread.h>

class CNplThreadMutex;

class CNplThreadMutexLock {
public:
    // Locks at once when lockNow is true.
    CNplThreadMutexLock(CNplThreadMutex& mutex, bool lockNow = true);
    ~CNplThreadMutexLock();
    CNplThreadMutexLock(const CNplThreadMutexLock&) = delete;
    CNplThreadMutexLock& operator=(const CNplThreadMutexLock&) = delete;

    // Locks only when this object does not hold the lock yet.
    void Lock();
    // Tries only when not held; true when held afterwards.
    bool TryLock();
    // Unlocks only when held.
    void UnLock();
    bool IsLocked() const { return m_bLocked; }
    pthread_mutex_t* GetMutex() const { return m_pMutex; }

private:
    pthread_mutex_t* m_pMutex;
    bool m_bLocked;
};

// Takes both locks without deadlock: when one of them is already held (or
// both name the same mutex) the other is simply locked; otherwise both are
// tried in alternating order, sleeping 10 ms after every failed round, until
// both are held.
void DualMutexLock(CNplThreadMutexLock& first, CNplThreadMutexLock& second);
