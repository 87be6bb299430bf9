#include "platform/CNplThreadSafeObject.h"

CNplThreadSafeObject::CNplThreadSafeObject() : m_Mutex(true)
{
}

// Members go in reverse order: the condition first, then the mutex.
CNplThreadSafeObject::~CNplThreadSafeObject() = default;

int CNplThreadSafeObject::Lock()
{
    return m_Mutex.Lock();
}

int CNplThreadSafeObject::UnLock()
{
    return m_Mutex.UnLock();
}

bool CNplThreadSafeObject::WaitCondition(Int64 timeoutMs)
{
    const int64_t ms = timeoutMs.Value();
    int64_t ns;
    if (ms >= 1)
        ns = (ms > INT64_MAX / 1000000) ? INT64_MAX : ms * 1000000;
    else if (ms == 0)
        ns = 0;
    else
        ns = -1;
    // No predicate and no loop against spurious wake-ups: callers check
    // their own state after waking.
    return m_Condition.Wait(m_Mutex, NplTimeout(ns)) == 0;
}

int CNplThreadSafeObject::SignalCondition()
{
    return m_Condition.Signal();
}
