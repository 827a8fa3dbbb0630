#include <tavo/SocketDescriptor.h>

#include <sys/socket.h>
#include <unistd.h>

namespace tavo
{

SocketDescriptor::SocketDescriptor(int fd) : m_state(fd < 0 ? CLOSED : 0), m_fd(fd) {}

SocketDescriptor::~SocketDescriptor()
{
    close();
}

int SocketDescriptor::acquire()
{
    unsigned int state = m_state.load();
    do
    {
        if ((state & CLOSED) != 0)
        {
            return -1;
        }
    } while (!m_state.compare_exchange_weak(state, state + USER));
    return m_fd;
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
    ::shutdown(m_fd, SHUT_RDWR);
    release();
}

bool SocketDescriptor::isClosed() const
{
    return (m_state.load() & CLOSED) != 0;
}

void SocketDescriptor::closeDescriptor()
{
    if (m_fd >= 0)
    {
        ::close(m_fd);
        m_fd = -1;
    }
}

} // namespace tavo
