// A growable FIFO ring of elements with its own mutex; carries received frames from the
// receiver thread to their consumers. Producers call lock(), push_unlock(), unlock(); consumers
// call pop(), which locks by itself. The queue does not own what its elements point to.
#ifndef PELK_COMMONLIB_QUEUE_H
#define PELK_COMMONLIB_QUEUE_H

#include <pthread.h>

#include <atomic>
#include <new>

#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Common {

template <typename T>
class Queue {
public:
    explicit Queue(unsigned int capacity)
        : m_nCapacity(capacity), m_pSlots(new (std::nothrow) T[capacity]), m_nHead(0), m_nTail(0), m_nCount(0) {
        if (m_pSlots == nullptr) {
            ZT_LOG(ZT_LOG_ERROR, "Out of memory!");
            m_nCapacity = 0;
        }
        OSAbstractLayer::osal_init_mutex(&m_mutex);
    }

    virtual ~Queue() {
        OSAbstractLayer::osal_destroy_mutex(&m_mutex);
        delete[] m_pSlots;
    }

    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void lock() {
        if (OSAbstractLayer::osal_lock_mutex(&m_mutex) != 0) {
            ZT_LOG(ZT_LOG_WARNING, "cannot lock mutex!");
        }
    }

    void unlock() {
        if (OSAbstractLayer::osal_unlock_mutex(&m_mutex) != 0) {
            ZT_LOG(ZT_LOG_WARNING, "cannot unlock mutex!");
        }
    }

    // Holds the queue's mutex for a scope, for the *_unlock steps.
    class Locked {
    public:
        explicit Locked(Queue& queue) : m_queue(queue) { m_queue.lock(); }
        ~Locked() { m_queue.unlock(); }
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;

    private:
        Queue& m_queue;
    };

    // REQUIRES: the caller holds the queue's mutex. Doubles the capacity when full.
    bool push_unlock(T elem) {
        const unsigned int count = m_nCount.load(std::memory_order_relaxed);
        if (count > m_nCapacity) {
            ZT_LOG(ZT_LOG_ERROR, "len > size! len=%u, size=%u", count, m_nCapacity);
            return false;
        }
        if (count == m_nCapacity && !assign(m_nCapacity == 0 ? 1 : m_nCapacity * 2)) {
            return false;
        }
        m_pSlots[m_nTail] = elem;
        m_nTail = (m_nTail + 1) % m_nCapacity;
        m_nCount.store(count + 1, std::memory_order_release);
        return true;
    }

    // REQUIRES: the caller holds the queue's mutex. Moves the oldest element into *elem.
    bool top_unlock(T* elem) {
        if (elem == nullptr) {
            ZT_LOG(ZT_LOG_ERROR, "elem == NULL!");
            return false;
        }
        const unsigned int count = m_nCount.load(std::memory_order_relaxed);
        if (count == 0) {
            return false;
        }
        *elem = m_pSlots[m_nHead];
        m_nHead = (m_nHead + 1) % m_nCapacity;
        m_nCount.store(count - 1, std::memory_order_release);
        return true;
    }

    // Takes the oldest element; false when the queue is empty or elem is null.
    bool pop(T* elem) {
        Locked held(*this);
        return top_unlock(elem);
    }

    // Re-allocates the slots to newCapacity. Only meaningful on a full queue, since it takes
    // every old slot in order from head. REQUIRES: the caller holds the queue's mutex.
    bool assign(unsigned int newCapacity) {
        ZT_LOG(ZT_LOG_INFO, "Queue::Assign(%d)", static_cast<int>(newCapacity));
        T* slots = new (std::nothrow) T[newCapacity];
        if (slots == nullptr) {
            ZT_LOG(ZT_LOG_ERROR, "Out of memory!");
            return false;
        }
        unsigned int from = m_nHead;
        for (unsigned int i = 0; i < m_nCapacity; ++i) {
            slots[i] = m_pSlots[from];
            from = (from + 1) % m_nCapacity;
        }
        m_nHead = 0;
        m_nTail = m_nCapacity;
        delete[] m_pSlots;
        m_pSlots = slots;
        m_nCapacity = newCapacity;
        return true;
    }

    // May be read without the mutex; the value can be momentarily stale.
    unsigned int size() const { return m_nCount.load(std::memory_order_acquire); }
    bool empty() const { return size() == 0; }
    // REQUIRES: the caller holds the queue's mutex.
    unsigned int capacity() const { return m_nCapacity; }

private:
    unsigned int m_nCapacity;
    T* m_pSlots;
    unsigned int m_nHead;
    unsigned int m_nTail;
    std::atomic<unsigned int> m_nCount;
    pthread_mutex_t m_mutex;
};

}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_QUEUE_H
