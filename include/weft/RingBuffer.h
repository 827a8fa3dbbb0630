#pragma once

#include <tavo/Assert.h>
#include <tavo/Types.h>

// A fixed-capacity circular queue of elements stored by value. The element
// array is allocated once; one slot always stays free, so a ring of capacity
// n holds n - 1 elements. No lock: the owner guards it.
template <class T>
class RingBuffer
{
public:
    explicit RingBuffer(uint capacity)
        : m_capacity(capacity), m_readIndex(0), m_writeIndex(0), m_pElements(new T[capacity])
    {
        TAVO_ASSERT(capacity > 1);
    }

    virtual ~RingBuffer() { delete[] m_pElements; }

    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    // Copies the element in; false, with nothing changed, when full.
    bool push(const T& element)
    {
        if (isFull())
        {
            return false;
        }
        m_pElements[m_writeIndex] = element;
        m_writeIndex = (m_writeIndex + 1) % m_capacity;
        return true;
    }

    bool isEmpty() const { return m_readIndex == m_writeIndex; }
    bool isFull() const { return (m_writeIndex + 1) % m_capacity == m_readIndex; }

    // The oldest element; only on a non-empty ring.
    T& front() { return m_pElements[m_readIndex]; }
    const T& front() const { return m_pElements[m_readIndex]; }

    // Drops the oldest element; nothing on an empty ring.
    void pop()
    {
        if (!isEmpty())
        {
            m_readIndex = (m_readIndex + 1) % m_capacity;
        }
    }

    uint size() const { return (m_writeIndex + m_capacity - m_readIndex) % m_capacity; }
    uint capacity() const { return m_capacity; }

    // The element `offset` places after the oldest; offset < size().
    T& at(uint offset) { return m_pElements[(m_readIndex + offset) % m_capacity]; }
    const T& at(uint offset) const { return m_pElements[(m_readIndex + offset) % m_capacity]; }

private:
    uint m_capacity;
    uint m_readIndex;
    uint m_writeIndex;
    T* m_pElements;
};
