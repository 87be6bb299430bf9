// Base for classes that hand data between threads: a recursive mutex and a
// condition.
#pragma once

#include "platform/CNplThreadCondition.h"
#include "platform/CNplThreadMutex.h"
#include "platform/NplTypes.h"

class CNplThreadSafeObject {
public:
    CNplThreadSafeObject();
    virtual ~CNplThreadSafeObject();

    virtual int Lock();
    virtual int UnLock();
    // Caller holds the lock. True when signalled; false on time-out or error.
    virtual bool WaitCondition(Int64 timeoutMs);
    virtual int SignalCondition();

protected:
    CNplThreadMutex m_Mutex;
    CNplThreadCondition m_Condition;
};
