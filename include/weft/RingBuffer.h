#pragma once

#include <tavo/Assert.h>
#include <tavo/Types.h>

#include <memory>

// A fixed-capacity circular queue of elements stored by value. One slot
// always stays free, so a ring of capacity n holds n - 1 elements. Slots are
// made in blocks as the queue first reaches them and kept for reuse, so a
// ring costs memory in proportion to the most it has held, not to its
// capacity; release() gives it all back while the ring is empty. No lock:
// the owner guards it.
template <class T>
class RingBuffer
{
public:
    // Slots per block: small enough that an idle ring costs little, large
    // enough that a busy one allocates rarely.
    static constexpr uint BLOCK = 16;

    explicit RingBuffer(uint capacity)
        : m_capacity(capacity), m_readIndex(0), m_writeIndex(0),
          m_pBlocks(new std::unique_ptr<T[]>[(capacity + BLOCK - 1) / BLOCK])
    {
        TAVO_ASSERT(capacity > 1);
    }

    virtual ~RingBuffer() {}

    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    // Copies the element in; false, with nothing changed, when full.
    bool push(const T& element)
    {
        if (isFull())
        {
            return false;
        }
        std::unique_ptr<T[]>& block = m_pBlocks[m_writeIndex / BLOCK];
        if (!block)
        {
            block.reset(new T[BLOCK]);
        }
        block[m_writeIndex % BLOCK] = element;
        m_writeIndex = (m_writeIndex + 1) % m_capacity;
        return true;
    }

    bool isEmpty() const { return m_readIndex == m_writeIndex; }
    bool isFull() const { return (m_writeIndex + 1) % m_capacity == m_readIndex; }

    // The oldest element; only on a non-empty ring.
    T& front() { return slot(m_readIndex); }
    const T& front() const { return slot(m_readIndex); }

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
    T& at(uint offset) { return slot((m_readIndex + offset) % m_capacity); }
    const T& at(uint offset) const { return slot((m_readIndex + offset) % m_capacity); }

    // Frees every block; only on an empty ring (a closed connection's).
    void release()
    {
        TAVO_ASSERT(isEmpty());
        for (uint block = 0; block < (m_capacity + BLOCK - 1) / BLOCK; ++block)
        {
            m_pBlocks[block].reset();
        }
    }

private:
    T& slot(uint index) const { return m_pBlocks[index / BLOCK][index % BLOCK]; }

    uint m_capacity;
    uint m_readIndex;
    uint m_writeIndex;
    std::unique_ptr<std::unique_ptr<T[]>[]> m_pBlocks;
};
