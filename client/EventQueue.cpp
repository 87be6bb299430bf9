#include "client/EventQueue.h"

#include <utility>

namespace streamloft {

std::shared_ptr<EventQueue> EventQueue::Create(GMainContext* context)
{
    return std::shared_ptr<EventQueue>(new EventQueue(context));
}

EventQueue::EventQueue(GMainContext* context) : context_(g_main_context_ref(context))
{
}

EventQueue::~EventQueue()
{
    g_main_context_unref(context_);
}

void EventQueue::Post(Event event)
{
    bool attach = false;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!stopped_) {
            events_.push_back(std::move(event));
            attach = !scheduled_;
            scheduled_ = true;
        }
    }
    // After Stop the event was not taken: it is destroyed here, outside the lock.
    if (!attach)
        return;
    // The dispatch holds the queue alive until it has run (or until the
    // context is destroyed without running it).
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &EventQueue::Drain, new std::shared_ptr<EventQueue>(shared_from_this()),
                          [](gpointer data) { delete static_cast<std::shared_ptr<EventQueue>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
}

gboolean EventQueue::Drain(gpointer data)
{
    EventQueue& queue = **static_cast<std::shared_ptr<EventQueue>*>(data);
    for (;;) {
        Event event;
        {
            std::unique_lock<std::mutex> guard(queue.lock_);
            if (queue.stopped_ || queue.events_.empty()) {
                queue.scheduled_ = false;
                break;
            }
            event = std::move(queue.events_.front());
            queue.events_.pop_front();
            queue.running_ = true;
            queue.runner_ = std::this_thread::get_id();
        }
        event();
        event = nullptr; // what the event held (frames, handles) goes before the next one
        std::lock_guard<std::mutex> guard(queue.lock_);
        queue.running_ = false;
        queue.runner_ = {};
        queue.idle_.notify_all();
    }
    return G_SOURCE_REMOVE;
}

void EventQueue::Stop()
{
    std::deque<Event> dropped;
    {
        std::unique_lock<std::mutex> guard(lock_);
        stopped_ = true;
        dropped.swap(events_);
        if (runner_ != std::this_thread::get_id())
            idle_.wait(guard, [this] { return !running_; });
    }
}

bool EventQueue::InsideEvent() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return running_ && runner_ == std::this_thread::get_id();
}

} // namespace streamloft
