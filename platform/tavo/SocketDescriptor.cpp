#include <tavo/SocketDescriptor.h>

#include <sys/socket.h>
#include <unistd.h>

namespace tavo
{

SocketDescriptor::SocketDescriptor() : m_state(0), m_fd(-1) {}

SocketDescriptor::SocketDescriptor(int fd) : m_state(fd < 0 ? CLOSED : 0), m_fd(fd) {}

SocketDescriptor::~SocketDescriptor()
{
    close();
}

bool SocketDescriptor::open(int fd)
{
    // As a user, so that a close meanwhile leaves the descriptor to the last
    // user instead of closing it under this call.
    if (fd < 0 || !enter())
    {
        return false;
    }
    int none = -1;
    const bool opened = m_fd.compare_exchange_strong(none, fd);
    // A close that ran between the two steps above looked at the descriptor
    // before it was there and shut nothing down: do it for that close, so
    // that no call can block on the new descriptor for good. Either this
    // sees the mark or that close saw the descriptor.
    if (opened && isClosed())
    {
        ::shutdown(fd, SHUT_RDWR);
    }
    release();
    return opened;
}

bool SocketDescriptor::enter()
{
    unsigned int state = m_state.load();
    do
    {
        if ((state & CLOSED) != 0)
        {
            return false;
        }
    } while (!m_state.compare_exchange_weak(state, state + USER));
    return true;
}

int SocketDescriptor::acquire()
{
    if (!enter())
    {
        return -1;
    }
    const int fd = m_fd.load();
    if (fd < 0)
    {
        release();
    }
    return fd;
}

void SocketDescriptor::release()
{
    if (m_state.fetch_sub(USER) == (CLOSED | USER))
    {
        closeDescriptor();
    }
}

void SocketDescriptor::close()
{
    // Sets the mark and becomes a user in one step, so that the descriptor
    // stays open for the shutdown below even if the last call ends meanwhile.
    unsigned int state = m_state.load();
    do
    {
        if ((state & CLOSED) != 0)
        {
            return;
        }
    } while (!m_state.compare_exchange_weak(state, (state | CLOSED) + USER));
    // Wakes blocked accept, recv, recvfrom and send calls; for a UDP socket
    // this fails with ENOTCONN but wakes the receiver all the same.
    const int fd = m_fd.load();
    if (fd >= 0)
    {
        ::shutdown(fd, SHUT_RDWR);
    }
    release();
}

bool SocketDescriptor::isClosed() const
{
    return (m_state.load() & CLOSED) != 0;
}

void SocketDescriptor::closeDescriptor()
{
    const int fd = m_fd.exchange(-1);
    if (fd >= 0)
    {
        ::close(fd);
    }
}

} // namespace tavo
