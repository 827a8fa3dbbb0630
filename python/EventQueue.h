#pragma once

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <pybind11/pybind11.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace weftpy
{

namespace py = pybind11;

class EventQueue;
class Peer;

enum EEventKind
{
    EVENT_CONNECTED,
    EVENT_DISCONNECTED,
    EVENT_TRIGGER,
    EVENT_UPDATE,
    EVENT_SUBSCRIBE,
    EVENT_UNSUBSCRIBE,
    EVENT_CALL,
};

// One thing that happened, held in C++ so that a library thread can queue it
// without the GIL.
struct EventRecord
{
    EEventKind kind = EVENT_CONNECTED;
    std::string name;
    ParameterValue value;
    ParameterList params;
    // The server's connection it happened on; null on a client.
    std::shared_ptr<Peer> peer;
};

// Made at import: weft.Event, a named tuple (kind, name, value, connection).
void defineEventType(py::module_& module);
// With the GIL.
py::object toPython(const EventRecord& record);

// On a library thread: hands `record` to `callback` with the GIL, or queues
// it for the events() iterator when there is no callback.
void deliver(EventRecord record, const py::object& callback, EventQueue& queue);

// Events that no callback takes, for the events() iterator. Unbounded: an
// event is never dropped.
class EventQueue
{
public:
    enum EWait
    {
        WAIT_EVENT,
        WAIT_TIMEOUT,
        WAIT_ENDED,
    };

    void push(EventRecord record);
    // No event follows those queued.
    void end();
    // Without the GIL.
    EWait pop(EventRecord& record, std::chrono::steady_clock::duration timeout);

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<EventRecord> m_records;
    bool m_ended = false;
};

// The iterator that events(timeout) returns: each step waits up to `timeout`
// seconds (None: without limit) and ends the iteration when that passes or
// when the endpoint has closed and its queue is empty. Ctrl-C interrupts it.
class EventIterator
{
public:
    EventIterator(std::shared_ptr<void> owner, EventQueue& queue, py::object timeout);
    py::object next();

private:
    std::shared_ptr<void> m_owner;
    EventQueue& m_queue;
    bool m_limited;
    std::chrono::steady_clock::duration m_timeout;
};

} // namespace weftpy
