// A detached POSIX thread running one user function, with a cooperative stop.
//
// Lifetime rules:
// - An object that is not auto-delete may be stopped or destroyed at any
//   moment after CreateThread, also before its thread has started to run.
//   StopThread waits (up to its time-out) until the thread procedure has
//   left the object, whether it is still to start or inside the user
//   function, and returns true only then; a stop requested before the thread
//   runs is seen by the user function through IsTerminationRequested as soon
//   as it starts. The destructor does the same with a 10 s wait. Only a
//   thread that does not end within the wait is abandoned (reported, never
//   killed); it must then not touch the object any more.
// - An auto-delete object belongs to its thread from CreateThread on: it
//   deletes itself when the user function returns, so nobody else may stop,
//   destroy or otherwise touch it after a successful CreateThread.
// - StopThread and the destructor must not be called from the object's own
//   thread (the wait would be for itself).

#include <atomic>
#include <pthread.h>
#include <string>

typedef void* (*NplThreadFunc)(void*);

// The thread interface. It is abstract: its destructor only ever runs as
// part of a derived object's destruction.
class INplThread {
public:
    virtual ~INplThread();
    virtual bool CreateThread(NplThreadFunc function, void* argument, const char* name) = 0;
    virtual void RequestTermination() = 0;
    virtual bool StopThread(int timeoutMs, bool breakIfNotStopped, bool forceKill) = 0;
    virtual bool IsRunning() = 0;
    virtual bool IsTerminationRequested() = 0;
};

class CNplThread : public INplThread {
public:
    explicit CNplThread(bool autoDelete);
    ~CNplThread() override;

    bool CreateThread(NplThreadFunc function, void* argument, const char* name) override;
    void RequestTermination() override;
    bool StopThread(int timeoutMs, bool breakIfNotStopped, bool forceKill) override;
    bool IsRunning() override;
    bool IsTerminationRequested() override;

    int GetThreadId() const { return m_nThreadId; }
    const std::string& GetName() const { return m_strName; }
    void ResetHandle();

    static int GetCurrentThreadId();
    static void SetCurrentThreadName(const char* name);
    static void GetCurrentThreadName(char* buffer, int size);

private:
    static void* ThreadProc_Static(void* argument);
    void* ThreadProc();

    pthread_t m_hThread;
    NplThreadFunc m_pfnThreadFunc;
    void* m_pThreadArg;
    bool m_bAutoDelete;
    bool m_bCreated;
    // Flags read across threads without a lock (IsRunning, and the user
    // function polls m_bTerminationRequested).
    std::atomic<bool> m_bRunning;
    std::atomic<bool> m_bTerminationRequested;
    std::atomic<int> m_nThreadId;
    std::string m_strName;
    // Thread procedures started by CreateThread that have not yet finished
    // with the object: counted up before pthread_create, down as the
    // procedure's last touch (a release), whether or not the user function
    // ever ran. A stop or the destructor waits for it to reach 0, so an
    // object is never freed under a thread that is still to start.
    std::atomic<int> m_nLiveProcedures;
};
