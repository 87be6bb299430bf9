// A bounded, thread-safe first-in first-out queue of shared references.
//
// The capacity is fixed when the queue is made and the storage for every
// entry is reserved then, so Enqueue and Dequeue never allocate. Any number of
// threads may enqueue and dequeue at the same time. Enqueue on a full queue
// refuses the reference (the caller's reference is simply dropped) and answers
// false; Dequeue on an empty queue answers an empty reference at once, it never
// waits.
//
// References are never released while the queue's lock is held: an object
// whose last reference goes may run arbitrary code in its destructor (even
// code that uses this same queue).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

template <class T>
class CNplRefQueue {
public:
    explicit CNplRefQueue(uint32_t capacity) : m_entries(capacity) {}

    CNplRefQueue(const CNplRefQueue&) = delete;
    CNplRefQueue& operator=(const CNplRefQueue&) = delete;

    // Appends a reference at the tail. False when the queue is full; the
    // reference is then released by the caller's copy going out of scope.
    bool Enqueue(std::shared_ptr<T> ref)
    {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_count < m_entries.size()) {
                size_t tail = m_head + m_count;
                if (tail >= m_entries.size())
                    tail -= m_entries.size();
                m_entries[tail] = std::move(ref);
                ++m_count;
                return true;
            }
        }
        // `ref` still holds the refused reference; it is released on return,
        // after the lock above was given up.
        return false;
    }

    // Takes the reference at the head; empty when the queue is empty.
    std::shared_ptr<T> Dequeue()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_count == 0)
            return nullptr;
        std::shared_ptr<T> ref = std::move(m_entries[m_head]);
        if (++m_head == m_entries.size())
            m_head = 0;
        --m_count;
        return ref;
    }

    // Number of references queued now.
    uint32_t GetCount() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return static_cast<uint32_t>(m_count);
    }

    uint32_t GetCapacity() const { return static_cast<uint32_t>(m_entries.size()); }

    // Releases every queued reference, one at a time and outside the lock.
    void Clear()
    {
        while (Dequeue()) {
        }
    }

private:
    // Lock order: a leaf. Nothing else is locked while it is held, and no
    // reference is released under it.
    mutable std::mutex m_lock;
    std::vector<std::shared_ptr<T>> m_entries;
    size_t m_head = 0;
    size_t m_count = 0;
};
