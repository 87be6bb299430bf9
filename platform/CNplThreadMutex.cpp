#include "platform/CNplThreadMutex.h"

CNplThreadMutex::CNplThreadMutex(bool recursive)
{
    if (recursive) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_Mutex, &attr);
        pthread_mutexattr_destroy(&attr);
    } else {
        pthread_mutex_init(&m_Mutex, nullptr);
    }
}

CNplThreadMutex::~CNplThreadMutex()
{
    pthread_mutex_destroy(&m_Mutex);
}

int CNplThreadMutex::Lock()
{
    return pthread_mutex_lock(&m_Mutex);
}

int CNplThreadMutex::UnLock()
{
    return pthread_mutex_unlock(&m_Mutex);
}

bool CNplThreadMutex::TryLock()
{
    return pthread_mutex_trylock(&m_Mutex) == 0;
}
