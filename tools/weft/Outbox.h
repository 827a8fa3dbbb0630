#pragma once

// What weft serve sends to one client, sent by a thread of that client's own,
// so that a client that reads slowly, or not at all, delays no one else: the
// console and the other clients only ever queue.

#include <weft/ParameterValue.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class WEFTConnection;

namespace weftcli
{

class Outbox
{
public:
    // Messages a client may have waiting; beyond them it is too slow to keep.
    static constexpr std::size_t LIMIT = 10000;

    // `tooSlow` runs on the outbox's thread when the queue overflowed; the
    // connection is disconnected right after.
    Outbox(WEFTConnection& connection, std::function<void()> tooSlow);
    // Stops the thread; disconnect the connection first, so that a send
    // blocked on a stalled client returns.
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // Queues a trigger or a state update; false when the queue is full.
    bool push(bool trigger, const std::string& name, const ParameterValue& value);

private:
    struct Message
    {
        bool trigger;
        std::string name;
        ParameterValue value;
    };

    void run();

    WEFTConnection& m_connection;
    std::function<void()> m_tooSlow;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Message> m_queue;
    bool m_overflowed = false;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace weftcli
