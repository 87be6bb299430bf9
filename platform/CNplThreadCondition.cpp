#include "platform/CNplThreadCondition.h"

#include "platform/CNplThreadMutex.h"

#include <ctime>

CNplThreadCondition::CNplThreadCondition()
{
    // Timed waits are measured on the monotonic clock, so that changes of
    // the wall clock neither shorten nor lengthen them.
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Condition, &attr);
    pthread_condattr_destroy(&attr);
}

CNplThreadCondition::~CNplThreadCondition()
{
    pthread_cond_destroy(&m_Condition);
}

int CNplThreadCondition::Wait(CNplThreadMutex& mutex, const NplTimeout& timeout)
{
    if (timeout.IsInfinite())
        return pthread_cond_wait(&m_Condition, mutex.GetMutex());

    const struct timespec relative = NplMakeRelativeTimespec(timeout);
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    // Relative times beyond about 68 years are cut there rather than
    // overflowing the seconds.
    const time_t maxSeconds = static_cast<time_t>(0x7FFFFFFF);
    deadline.tv_sec = (relative.tv_sec > maxSeconds) ? deadline.tv_sec + maxSeconds : deadline.tv_sec + relative.tv_sec;
    deadline.tv_nsec += relative.tv_nsec;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_nsec -= 1000000000L;
        deadline.tv_sec += 1;
    }
    return pthread_cond_timedwait(&m_Condition, mutex.GetMutex(), &deadline);
}

int CNplThreadCondition::Signal()
{
    return pthread_cond_signal(&m_Condition);
}

int CNplThreadCondition::Broadcast()
{
    return pthread_cond_broadcast(&m_Condition);
}
