#pragma once

#include <tavo/Export.h>

#include <atomic>

namespace tavo
{

// Owns a socket descriptor shared by several threads. close() wakes every
// thread blocked on the socket (through shutdown(), since a plain close() on
// Linux does not), and the descriptor itself is released only once no thread
// uses it any more, so its number can never be reused under a running call.
//
// A socket whose family is known only at its first bind, connect or send
// starts without a descriptor and gets one through open(); until then every
// call on it fails as on a closed one.
class TAVO_EXPORT SocketDescriptor
{
public:
    // Without a descriptor, open.
    SocketDescriptor();
    // Adopts `fd`; a negative one makes the socket closed.
    explicit SocketDescriptor(int fd);
    ~SocketDescriptor();
    SocketDescriptor(const SocketDescriptor&) = delete;
    SocketDescriptor& operator=(const SocketDescriptor&) = delete;

    // Gives a socket without a descriptor `fd`: false, and the caller still
    // owns `fd`, when it has one already or is closed.
    bool open(int fd);

    // Marks the start of a call on the socket: the descriptor, or -1 when the
    // socket is closed or has none yet. Every successful acquire() is paired
    // with release().
    int acquire();
    void release();

    // Closes the socket for every present and future call. Idempotent.
    void close();
    bool isClosed() const;

private:
    // Calls in progress and the closed mark in one word, so that every call
    // on the socket costs one atomic step instead of a lock, and a call can
    // never start once the mark is set.
    static constexpr unsigned int CLOSED = 1;
    static constexpr unsigned int USER = 2;

    // Becomes a user unless the socket is closed; false when it is.
    bool enter();
    // Closes the descriptor itself; only once the mark is set and the last
    // user has gone.
    void closeDescriptor();

    std::atomic<unsigned int> m_state;
    // Set once by open() (or the constructor), reset only by closeDescriptor
    // when no call uses it any more.
    std::atomic<int> m_fd;
};

// Holds one use of a SocketDescriptor for a scope.
class SocketUse
{
public:
    explicit SocketUse(SocketDescriptor& descriptor)
        : m_descriptor(descriptor), m_fd(descriptor.acquire())
    {
    }
    ~SocketUse()
    {
        if (m_fd >= 0)
        {
            m_descriptor.release();
        }
    }
    SocketUse(const SocketUse&) = delete;
    SocketUse& operator=(const SocketUse&) = delete;

    int fd() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }

private:
    SocketDescriptor& m_descriptor;
    int m_fd;
};

} // namespace tavo
