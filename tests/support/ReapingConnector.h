#pragma once

#include "support/Recorders.h"
#include "support/Waiting.h"

#include <weft/IWEFTConnector.h>
#include <weft/WEFTConnection.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// Accepts every connection with a recording server of its own ("server0",
// "server1", ... into one EventLog) and, as a careful application does,
// deletes each connection once it has reported both CONN_STATUS_CONNECTED and
// CONN_STATUS_DISCONNECTED. The deleting happens on a thread of the
// connector's own: a connection cannot be deleted from its receive thread, and
// the listener reports CONNECTED on its thread after the receive loop has
// started, so a connection that ends at once must not go before that report.
class ReapingConnector : public IWEFTConnector
{
public:
    using Clock = std::chrono::steady_clock;

    explicit ReapingConnector(EventLog& log) : m_log(log), m_reaper([this] { reap(); }) {}

    // Stops reaping, then disconnects and deletes the connections left.
    ~ReapingConnector() override
    {
        std::vector<WEFTConnection*> left;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
            for (Entry& entry : m_entries)
            {
                if (entry.connection)
                {
                    left.push_back(entry.connection.get());
                }
            }
        }
        m_wake.notify_all();
        m_reaper.join();
        // Their last reports arrive while this waits, and are ignored.
        for (WEFTConnection* connection : left)
        {
            connection->disconnect();
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.clear();
    }

    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::size_t index = m_entries.size();
        Entry entry;
        entry.connection.reset(connection);
        entry.server = std::make_unique<Server>(*this, index);
        entry.acceptedAt = Clock::now();
        if (prepare)
        {
            prepare(*connection);
        }
        connection->setServer(entry.server.get());
        m_entries.push_back(std::move(entry));
        m_log.add(Event{"connection", "server" + std::to_string(index), ""});
        m_accepted.add();
    }

    // Runs `use` on accepted connection `index` under the connector's lock,
    // so that it cannot be deleted meanwhile; false when it is not there (not
    // yet accepted, or already deleted). Holding the lock also orders the use
    // before a later deletion for ThreadSanitizer, which cannot see that a
    // socket's end came after it.
    template <class Use>
    bool withConnection(std::size_t index, Use use)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (index >= m_entries.size() || !m_entries[index].connection)
        {
            return false;
        }
        use(*m_entries[index].connection);
        return true;
    }

    bool waitForConnections(int count, std::chrono::milliseconds timeout) const
    {
        return m_accepted.waitFor(count, timeout);
    }
    bool waitForReaped(int count, std::chrono::milliseconds timeout) const
    {
        return m_reaped.waitFor(count, timeout);
    }
    int accepted() const { return m_accepted.get(); }
    int reaped() const { return m_reaped.get(); }

    // From hand-over to the DISCONNECTED report, for every connection reaped.
    std::vector<Clock::duration> lifetimes() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Clock::duration> result;
        for (const Entry& entry : m_entries)
        {
            if (entry.reaped)
            {
                result.push_back(entry.endedAt - entry.acceptedAt);
            }
        }
        return result;
    }

    // Runs inside onConnection, before the server object is set.
    std::function<void(WEFTConnection&)> prepare;

private:
    class Server : public RecordingServer
    {
    public:
        Server(ReapingConnector& owner, std::size_t index)
            : RecordingServer(owner.m_log, "server" + std::to_string(index)), m_owner(owner),
              m_index(index)
        {
        }
        void onStatus(EConnStatus status) override
        {
            RecordingServer::onStatus(status);
            m_owner.reported(m_index, status);
        }

    private:
        ReapingConnector& m_owner;
        std::size_t m_index;
    };

    struct Entry
    {
        // Declared first, so that it outlives its connection.
        std::unique_ptr<Server> server;
        std::unique_ptr<WEFTConnection> connection;
        bool up = false;
        bool down = false;
        bool reaped = false;
        Clock::time_point acceptedAt;
        Clock::time_point endedAt;
    };

    void reported(std::size_t index, EConnStatus status)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
            {
                return;
            }
            Entry& entry = m_entries[index];
            if (status == CONN_STATUS_CONNECTED)
            {
                entry.up = true;
            }
            else
            {
                entry.down = true;
                entry.endedAt = Clock::now();
            }
            if (!entry.up || !entry.down)
            {
                return;
            }
            m_due.push_back(index);
        }
        m_wake.notify_all();
    }

    void reap()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;)
        {
            m_wake.wait(lock, [this] { return m_stopping || !m_due.empty(); });
            if (m_stopping)
            {
                return;
            }
            Entry& entry = m_entries[m_due.front()];
            m_due.pop_front();
            std::unique_ptr<WEFTConnection> connection = std::move(entry.connection);
            std::unique_ptr<Server> server = std::move(entry.server);
            entry.reaped = true;
            lock.unlock();
            // Waits for the receive thread, which may still be returning from
            // the DISCONNECTED report.
            connection->disconnect();
            connection.reset();
            server.reset();
            m_reaped.add();
            lock.lock();
        }
    }

    EventLog& m_log;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<Entry> m_entries;
    std::deque<std::size_t> m_due;
    bool m_stopping = false;
    EventCounter m_accepted;
    EventCounter m_reaped;
    std::thread m_reaper;
};
