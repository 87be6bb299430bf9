#include "windows/SLFCefMainThread.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>

namespace {

struct MainThreadJob {
    const std::function<void()>* work;
    // Leaf lock of the hand-over; nothing else is taken while it is held.
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
};

gboolean RunJob(gpointer data)
{
    auto* job = static_cast<MainThreadJob*>(data);
    (*job->work)();
    std::lock_guard<std::mutex> guard(job->lock);
    job->done = true;
    job->finished.notify_one();
    return G_SOURCE_REMOVE;
}

struct PeriodicSource {
    GSource source;
    int fd;
};

gboolean PeriodicDispatch(GSource* source, GSourceFunc callback, gpointer userData)
{
    auto* periodic = reinterpret_cast<PeriodicSource*>(source);
    uint64_t expirations = 0;
    ssize_t n;
    do {
        n = read(periodic->fd, &expirations, sizeof expirations);
    } while (n < 0 && errno == EINTR);
    if (!callback)
        return G_SOURCE_CONTINUE;
    return callback(userData);
}

void PeriodicFinalize(GSource* source)
{
    auto* periodic = reinterpret_cast<PeriodicSource*>(source);
    if (periodic->fd >= 0)
        close(periodic->fd);
    periodic->fd = -1;
}

// Without prepare and check, the source is dispatched whenever its fd is
// readable.
GSourceFuncs gPeriodicSourceFuncs = {nullptr, nullptr, PeriodicDispatch, PeriodicFinalize, nullptr, nullptr};

} // namespace

void SLFCefRunOnMainAndWait(const std::function<void()>& work)
{
    GMainContext* mainContext = g_main_context_default();
    if (g_main_context_is_owner(mainContext)) {
        work();
        return;
    }
    MainThreadJob job;
    job.work = &work;
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, RunJob, &job, nullptr);
    g_source_attach(source, mainContext);
    g_source_unref(source);
    std::unique_lock<std::mutex> guard(job.lock);
    job.finished.wait(guard, [&job] { return job.done; });
}

namespace {

struct timespec TimespecOfNanoseconds(uint64_t nanoseconds)
{
    struct timespec value = {};
    value.tv_sec = static_cast<time_t>(nanoseconds / 1000000000u);
    value.tv_nsec = static_cast<long>(nanoseconds % 1000000000u);
    return value;
}

// A timerfd source (disarmed) named `name`; null without a timerfd.
GSource* TimerSourceNew(const char* name)
{
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0)
        return nullptr;
    GSource* source = g_source_new(&gPeriodicSourceFuncs, sizeof(PeriodicSource));
    auto* periodic = reinterpret_cast<PeriodicSource*>(source);
    periodic->fd = fd;
    g_source_set_name(source, name);
    g_source_add_unix_fd(source, fd, G_IO_IN);
    // A source that may not recurse has its descriptor taken out of the poll
    // set before each dispatch and put back after it, and GLib wakes the
    // context for each of the two changes: at 600 passes a second that
    // doubled the pump's system calls. Nothing in these callbacks runs the
    // main context again, so recursion cannot happen.
    g_source_set_can_recurse(source, TRUE);
    return source;
}

} // namespace

GSource* SLFCefPeriodicSourceNew(uint64_t periodNanoseconds)
{
    GSource* source = TimerSourceNew("SLFCefPeriodicSource");
    if (!source)
        return nullptr;
    struct itimerspec period = {};
    period.it_interval = TimespecOfNanoseconds(periodNanoseconds);
    period.it_value = period.it_interval;
    if (timerfd_settime(reinterpret_cast<PeriodicSource*>(source)->fd, 0, &period, nullptr) != 0) {
        g_source_unref(source);
        return nullptr;
    }
    return source;
}

void SLFCefPeriodicSourceSetPeriod(GSource* source, uint64_t periodNanoseconds)
{
    if (!source)
        return;
    struct itimerspec period = {};
    period.it_interval = TimespecOfNanoseconds(periodNanoseconds);
    period.it_value = period.it_interval;
    // Setting the timer also clears expiries not yet read.
    timerfd_settime(reinterpret_cast<PeriodicSource*>(source)->fd, 0, &period, nullptr);
}

GSource* SLFCefDeadlineSourceNew()
{
    return TimerSourceNew("SLFCefDeadlineSource");
}

void SLFCefDeadlineSourceSetDeadline(GSource* source, int64_t monotonicMicroseconds)
{
    if (!source)
        return;
    struct itimerspec deadline = {};
    if (monotonicMicroseconds >= 0) {
        deadline.it_value = TimespecOfNanoseconds(static_cast<uint64_t>(monotonicMicroseconds) * 1000u);
        // A zero value would disarm: the earliest time the clock can name.
        if (deadline.it_value.tv_sec == 0 && deadline.it_value.tv_nsec == 0)
            deadline.it_value.tv_nsec = 1;
    }
    timerfd_settime(reinterpret_cast<PeriodicSource*>(source)->fd, TFD_TIMER_ABSTIME, &deadline, nullptr);
}
