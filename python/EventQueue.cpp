#include "EventQueue.h"

#include "Runtime.h"
#include "Server.h"
#include "Values.h"

#include <algorithm>
#include <cmath>

namespace weftpy
{

namespace
{

// How often a wait for events looks for a signal such as Ctrl-C.
constexpr std::chrono::milliseconds SIGNAL_CHECK_INTERVAL{100};

// Owned forever: the module's attribute could be replaced or deleted.
py::object* g_eventType = nullptr;

const char* kindName(EEventKind kind)
{
    switch (kind)
    {
    case EVENT_CONNECTED:
        return "connected";
    case EVENT_DISCONNECTED:
        return "disconnected";
    case EVENT_TRIGGER:
        return "trigger";
    case EVENT_UPDATE:
        return "update";
    case EVENT_SUBSCRIBE:
        return "subscribe";
    case EVENT_UNSUBSCRIBE:
        return "unsubscribe";
    case EVENT_CALL:
        return "call";
    }
    return "unknown";
}

bool hasName(EEventKind kind)
{
    return kind != EVENT_CONNECTED && kind != EVENT_DISCONNECTED;
}

py::object payload(const EventRecord& record)
{
    switch (record.kind)
    {
    case EVENT_TRIGGER:
    case EVENT_UPDATE:
        return fromValue(record.value);
    case EVENT_CALL:
        return fromList(record.params);
    default:
        return py::none();
    }
}

// The callback's arguments: a client's (name, value) or (status); a
// server's (connection[, name[, params]]).
py::tuple arguments(const EventRecord& record)
{
    if (!record.peer)
    {
        if (!hasName(record.kind))
        {
            return py::make_tuple(kindName(record.kind));
        }
        return py::make_tuple(fromText(record.name), payload(record));
    }
    py::object connection = py::cast(record.peer);
    switch (record.kind)
    {
    case EVENT_CALL:
        return py::make_tuple(connection, fromText(record.name), payload(record));
    case EVENT_SUBSCRIBE:
    case EVENT_UNSUBSCRIBE:
        return py::make_tuple(connection, fromText(record.name));
    default:
        return py::make_tuple(connection);
    }
}

} // namespace

void defineEventType(py::module_& module)
{
    py::object type = py::module_::import("collections")
                          .attr("namedtuple")("Event", "kind name value connection",
                                              py::arg("defaults") = py::make_tuple(py::none()));
    type.attr("__module__") = "weft";
    type.attr("__doc__") =
        "What happened on a client or server: kind is 'connected', 'disconnected', 'trigger', "
        "'update', 'subscribe', 'unsubscribe' or 'call'; name the item or function (None for "
        "connected and disconnected); value the trigger's or update's value, or the call's "
        "parameters as a dict; connection the server's Connection it happened on (None on a "
        "client).";
    module.attr("Event") = type;
    g_eventType = new py::object(type);
}

py::object toPython(const EventRecord& record)
{
    return (*g_eventType)(kindName(record.kind),
                          hasName(record.kind) ? py::object(fromText(record.name)) : py::none(),
                          payload(record), record.peer ? py::cast(record.peer) : py::none());
}

void deliver(EventRecord record, const py::object& callback, EventQueue& queue)
{
    // Set at construction and cleared only once the library's threads are
    // gone, so it may be looked at without the GIL.
    if (!callback)
    {
        queue.push(std::move(record));
        return;
    }
    runtime::CallbackScope scope;
    runtime::withGil(callback, [&] { callback(*arguments(record)); });
}

void EventQueue::push(EventRecord record)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.push_back(std::move(record));
    }
    m_changed.notify_all();
}

void EventQueue::end()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
    }
    m_changed.notify_all();
}

EventQueue::EWait EventQueue::pop(EventRecord& record, std::chrono::steady_clock::duration timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, timeout, [this] { return !m_records.empty() || m_ended; }))
    {
        return WAIT_TIMEOUT;
    }
    if (m_records.empty())
    {
        return WAIT_ENDED;
    }
    record = std::move(m_records.front());
    m_records.pop_front();
    return WAIT_EVENT;
}

EventIterator::EventIterator(std::shared_ptr<void> owner, EventQueue& queue, py::object timeout)
    : m_owner(std::move(owner)), m_queue(queue), m_limited(!timeout.is_none()), m_timeout()
{
    if (m_limited)
    {
        const double seconds = timeout.cast<double>();
        if (!(seconds >= 0) || !std::isfinite(seconds))
        {
            throw py::value_error("timeout must be a number of seconds, 0 or more, or None");
        }
        m_timeout = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(seconds));
    }
}

py::object EventIterator::next()
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + m_timeout;
    for (;;)
    {
        Clock::duration slice = SIGNAL_CHECK_INTERVAL;
        if (m_limited)
        {
            slice = std::clamp(deadline - Clock::now(), Clock::duration::zero(), slice);
        }
        EventRecord record;
        EventQueue::EWait result;
        {
            py::gil_scoped_release release;
            result = m_queue.pop(record, slice);
            // A daemon thread iterating at exit stays here.
            runtime::parkIfExiting();
        }
        if (result == EventQueue::WAIT_EVENT)
        {
            return toPython(record);
        }
        if (result == EventQueue::WAIT_ENDED || (m_limited && Clock::now() >= deadline))
        {
            throw py::stop_iteration();
        }
        if (PyErr_CheckSignals() != 0)
        {
            throw py::error_already_set();
        }
    }
}

} // namespace weftpy
