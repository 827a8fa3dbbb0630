#pragma once

#include "support/Waiting.h"

#include <weft/IWEFTClient.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

// One callback as a test sees it: which callback, the name, and the value or
// list in its text form.
struct Event
{
    std::string kind; // "trigger", "update", "subscribe", "unsubscribe", "call", "status"
    std::string name;
    std::string text;

    bool operator==(const Event&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Event& event)
{
    return out << event.kind << "(" << event.name << ", " << event.text << ")";
}

// Shared, ordered record of callbacks, with a count tests wait on.
class EventLog
{
public:
    void add(const Event& event)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(event);
        m_count.add();
    }

    std::vector<Event> events() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    bool waitFor(int count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        return m_count.waitFor(count, timeout);
    }

    int countOf(const Event& wanted) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(std::count(m_events.begin(), m_events.end(), wanted));
    }

    // Waits until `wanted` has been recorded, exactly once.
    bool waitFor(const Event& wanted,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        return eventually([&] { return countOf(wanted) == 1; }, timeout);
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
    EventCounter m_count;
};

inline std::string listText(const ParameterList& params)
{
    std::ostringstream out;
    params.print(out);
    return out.str();
}

// Records every callback of a client or a server into a shared log.
class Recorder : public IWEFTClient, public IWEFTServer
{
public:
    explicit Recorder(EventLog& log, const std::string& who = "client") : m_log(log), m_who(who) {}

    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        m_log.add(Event{"trigger", name, value.getAsString()});
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        m_log.add(Event{"update", name, value.getAsString()});
    }
    void onSubscribe(const std::string& name) override
    {
        m_log.add(Event{"subscribe", name, ""});
        if (onSubscribeHook)
        {
            onSubscribeHook(name);
        }
    }
    void onUnsubscribe(const std::string& name) override { m_log.add({"unsubscribe", name, ""}); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        m_log.add(Event{"call", name, listText(params)});
    }
    void onStatus(EConnStatus status) override
    {
        m_log.add(
            Event{"status", m_who, status == CONN_STATUS_CONNECTED ? "connected" : "disconnected"});
    }

    std::function<void(const std::string&)> onSubscribeHook;

private:
    EventLog& m_log;
    std::string m_who;
};

// Keeps every accepted connection, gives each a server object of its own
// that records into one log, and disconnects and deletes them at the end.
class CollectingConnector : public IWEFTConnector
{
public:
    explicit CollectingConnector(EventLog& log) : m_log(log) {}

    ~CollectingConnector() override { closeAll(); }

    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::string who = "server" + std::to_string(m_connections.size());
        m_servers.push_back(std::make_unique<Recorder>(m_log, who));
        if (prepare)
        {
            prepare(*connection);
        }
        connection->setServer(m_servers.back().get());
        m_connections.emplace_back(connection);
        m_log.add(Event{"connection", who, ""});
        m_accepted.add();
    }

    WEFTConnection* connection(std::size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return index < m_connections.size() ? m_connections[index].get() : nullptr;
    }

    bool waitForConnections(int count,
                            std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        return m_accepted.waitFor(count, timeout);
    }

    int accepted() const { return m_accepted.get(); }

    void closeAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& connection : m_connections)
        {
            connection->disconnect();
        }
        m_connections.clear();
    }

    // Runs inside onConnection, before the server object is set.
    std::function<void(WEFTConnection&)> prepare;

private:
    EventLog& m_log;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Recorder>> m_servers;
    std::vector<std::unique_ptr<WEFTConnection>> m_connections;
    EventCounter m_accepted;
};
