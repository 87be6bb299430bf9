// Condition variable on CLOCK_MONOTONIC.
#pragma once

#include "platform/NplTypes.h"

#include <pthread.h>

class CNplThreadMutex;

class CNplThreadCondition {
public:
    CNplThreadCondition();
    virtual ~CNplThreadCondition();
    CNplThreadCondition(const CNplThreadCondition&) = delete;
    CNplThreadCondition& operator=(const CNplThreadCondition&) = delete;

    // timeout >= 0: timed wait relative to now (0 times out at once);
    // negative: wait without limit. Returns the pthread result code.
    int Wait(CNplThreadMutex& mutex, const NplTimeout& timeout);
    int Signal();
    int Broadcast();

private:
    pthread_cond_t m_Condition;
};
