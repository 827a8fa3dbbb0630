#include <tavo/SocketDescriptor.h>

#include <sys/socket.h>
#include <unistd.h>

namespace tavo
{

SocketDescriptor::SocketDescriptor(int fd) : m_fd(fd), m_users(0), m_closed(fd < 0) {}

SocketDescriptor::~SocketDescriptor()
{
    close();
}

int SocketDescriptor::acquire()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closed)
    {
        return -1;
    }
    ++m_users;
    return m_fd;
}

void SocketDescriptor::release()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_users;
    if (m_closed && m_users == 0 && m_fd >= 0)
    {
        ::close(m_fd);
        m_fd = -1;
    }
}

void SocketDescriptor::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0)
    {
        m_closed = true;
        return;
    }
    if (!m_closed)
    {
        m_closed = true;
        // Wakes blocked accept, recv, recvfrom and send calls; for a UDP
        // socket this fails with ENOTCONN but wakes the receiver all the same.
        ::shutdown(m_fd, SHUT_RDWR);
    }
    if (m_users == 0)
    {
        ::close(m_fd);
        m_fd = -1;
    }
}

bool SocketDescriptor::isClosed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
}

} // namespace tavo
