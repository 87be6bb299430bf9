// Delivery of a client's events on its event context: the library's own
// context or one the host handed over. Events are closures, run one at a
// time in the order they were posted, each from one GLib dispatch of the
// context (never inside the call that posts them).
#pragma once

#include <glib.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace streamloft {

class EventQueue : public std::enable_shared_from_this<EventQueue> {
public:
    using Event = std::function<void()>;

    static std::shared_ptr<EventQueue> Create(GMainContext* context);
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Any thread. After Stop the event is dropped (destroyed at once).
    void Post(Event event);
    // Any thread: no event runs after this returns, except the one in progress
    // when called from inside it. From another thread it waits for an event in
    // progress to end. Queued events are dropped.
    void Stop();
    // True on the thread that runs an event of this queue, during the event.
    bool InsideEvent() const;

private:
    explicit EventQueue(GMainContext* context);
    static gboolean Drain(gpointer data);

    GMainContext* context_; // referenced
    // Lock order: a leaf; never held while an event runs or is destroyed.
    mutable std::mutex lock_;
    std::condition_variable idle_;
    std::deque<Event> events_;
    bool scheduled_ = false; // a dispatch is attached to the context
    bool stopped_ = false;
    bool running_ = false;
    std::thread::id runner_;
};

} // namespace streamloft
