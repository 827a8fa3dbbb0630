#include "Outbox.h"

#include <weft/WEFTConnection.h>

namespace weftcli
{

Outbox::Outbox(WEFTConnection& connection, std::function<void()> tooSlow)
    : m_connection(connection), m_tooSlow(std::move(tooSlow)), m_thread([this] { run(); })
{
}

Outbox::~Outbox()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

bool Outbox::push(bool trigger, const std::string& name, const ParameterValue& value)
{
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_overflowed || m_stopping)
        {
            return false;
        }
        if (m_queue.size() >= LIMIT)
        {
            m_overflowed = true;
            m_queue.clear();
        }
        else
        {
            m_queue.push_back(Message{trigger, name, value});
            queued = true;
        }
    }
    m_changed.notify_all();
    return queued;
}

void Outbox::run()
{
    for (;;)
    {
        Message message;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_stopping || m_overflowed || !m_queue.empty(); });
            if (m_stopping)
            {
                return;
            }
            if (m_overflowed)
            {
                lock.unlock();
                m_tooSlow();
                m_connection.disconnect();
                // Nothing more is sent; wait for the end.
                lock.lock();
                m_changed.wait(lock, [&] { return m_stopping; });
                return;
            }
            message = std::move(m_queue.front());
            m_queue.pop_front();
        }
        // A request the connection refuses (it ended, or its peer stalled
        // past the send time-out and it closed) is not retried.
        if (message.trigger)
        {
            m_connection.trigger(message.name, message.value);
        }
        else
        {
            m_connection.updateState(message.name, message.value);
        }
    }
}

} // namespace weftcli
