// The weft Python module: clients, servers and their connections over the
// shared library. Blocking calls release the GIL; callbacks run on the
// library's threads with the GIL taken.

#include "Client.h"
#include "EventQueue.h"
#include "Runtime.h"
#include "Server.h"
#include "Values.h"

#include <weft/Constants.h>

#include <tavo/LogManager.h>

#include <functional>

namespace weftpy
{

namespace
{

ETransport parseTransport(const std::string& name)
{
    if (name == "tcp")
    {
        return TRANSPORT_TCP;
    }
    if (name == "eudp")
    {
        return TRANSPORT_EUDP;
    }
    throw py::value_error("transport must be 'tcp' or 'eudp', not '" + name + "'");
}

const char* transportName(ETransport transport)
{
    return transport == TRANSPORT_TCP ? "tcp" : "eudp";
}

EConnMode parseMode(const std::string& name)
{
    if (name == "realtime")
    {
        return CONN_MODE_REALTIME;
    }
    if (name == "reliable")
    {
        return CONN_MODE_RELIABLE;
    }
    throw py::value_error("a mode is 'realtime' or 'reliable', not '" + name + "'");
}

ServerCore::Modes parseAllowed(const std::string& name)
{
    if (name == "both")
    {
        return ServerCore::Modes{true, true};
    }
    const EConnMode mode = parseMode(name);
    return ServerCore::Modes{mode == CONN_MODE_REALTIME, mode == CONN_MODE_RELIABLE};
}

unsigned short toPort(int port)
{
    if (port < 0 || port > 65535)
    {
        throw py::value_error("a port is 0 to 65535, not " + std::to_string(port));
    }
    return static_cast<unsigned short>(port);
}

unsigned int toWindow(py::handle size)
{
    if (!PyLong_Check(size.ptr()) || PyBool_Check(size.ptr()))
    {
        throw py::type_error("a window must be int");
    }
    int overflow = 0;
    const long long count = PyLong_AsLongLongAndOverflow(size.ptr(), &overflow);
    // One slot of the packet ring stays free.
    if (overflow != 0 || count < 1 || count >= static_cast<long long>(EUDP_RING_CAPACITY))
    {
        throw py::value_error("a window is 1 to " + std::to_string(EUDP_RING_CAPACITY - 1) +
                              " messages, not " + py::repr(size).cast<std::string>());
    }
    return static_cast<unsigned int>(count);
}

py::object toCallback(py::object callback, const char* name)
{
    if (!callback.is_none() && !PyCallable_Check(callback.ptr()))
    {
        throw py::type_error(std::string(name) + " must be callable or None");
    }
    return callback.is_none() ? py::object() : callback;
}

py::tuple peerTuple(const std::string& address, unsigned short port)
{
    return py::make_tuple(address, port);
}

// Python's handle on a client: closing it, or dropping its last reference,
// closes the connection.
class Client
{
public:
    explicit Client(std::shared_ptr<ClientCore> core) : m_core(std::move(core)) {}
    ~Client()
    {
        py::gil_scoped_release release;
        m_core->close();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    const std::shared_ptr<ClientCore> m_core;
};

class Server
{
public:
    explicit Server(std::shared_ptr<ServerCore> core) : m_core(std::move(core)) {}
    ~Server()
    {
        py::gil_scoped_release release;
        m_core->close();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const std::shared_ptr<ServerCore> m_core;
};

// A mode or window the client asks for after connecting.
struct Negotiation
{
    bool wanted = false;
    EConnMode mode = CONN_MODE_DONT_CARE;
    unsigned int window = 0;
};

std::unique_ptr<Client> connect(const std::string& host, int port, const std::string& transport,
                                py::object onTrigger, py::object onUpdate, py::object onStatus,
                                py::object sendMode, py::object receiveMode, py::object window,
                                bool strictPeer)
{
    runtime::checkRunning();
    const ETransport kind = parseTransport(transport);
    const unsigned short portNumber = toPort(port);
    Negotiation send;
    Negotiation receive;
    Negotiation windowSize;
    if (!sendMode.is_none())
    {
        send = Negotiation{true, parseMode(toText(sendMode, "send_mode")), 0};
    }
    if (!receiveMode.is_none())
    {
        receive = Negotiation{true, parseMode(toText(receiveMode, "receive_mode")), 0};
    }
    if (!window.is_none())
    {
        windowSize = Negotiation{true, CONN_MODE_DONT_CARE, toWindow(window)};
    }
    auto core = std::make_shared<ClientCore>(
        kind, ClientCore::Callbacks{toCallback(onTrigger, "on_trigger"),
                                    toCallback(onUpdate, "on_update"),
                                    toCallback(onStatus, "on_status")});
    {
        py::gil_scoped_release release;
        core->connect(host, portNumber, strictPeer);
    }
    auto client = std::make_unique<Client>(core);
    runtime::enroll(core);
    // A refusal raises, and the client then closes as it goes.
    py::gil_scoped_release release;
    if (send.wanted)
    {
        core->setSendMode(send.mode);
    }
    if (receive.wanted)
    {
        core->setReceiveMode(receive.mode);
    }
    if (windowSize.wanted)
    {
        core->setWindowSize(windowSize.window);
    }
    return client;
}

std::unique_ptr<Server> listen(const std::string& host, int port, const std::string& transport,
                               py::object onConnect, py::object onDisconnect,
                               py::object onSubscribe, py::object onUnsubscribe, py::object onCall,
                               const std::string& allowSend, const std::string& allowReceive)
{
    runtime::checkRunning();
    const ETransport kind = parseTransport(transport);
    const unsigned short portNumber = toPort(port);
    auto core = std::make_shared<ServerCore>(
        kind,
        ServerCore::Callbacks{
            toCallback(onConnect, "on_connect"), toCallback(onDisconnect, "on_disconnect"),
            toCallback(onSubscribe, "on_subscribe"), toCallback(onUnsubscribe, "on_unsubscribe"),
            toCallback(onCall, "on_call")},
        parseAllowed(allowSend), parseAllowed(allowReceive));
    {
        py::gil_scoped_release release;
        core->listen(host, portNumber);
    }
    auto server = std::make_unique<Server>(core);
    runtime::enroll(core);
    return server;
}

// Names and values are read with the GIL, then sent without it.
template <class Send>
void sendValue(py::handle name, py::handle value, Send send)
{
    const std::string text = toText(name, "a name");
    const ParameterValue converted = toValue(value);
    checkRoom(text, converted);
    py::gil_scoped_release release;
    send(text, converted);
}

py::frozenset toFrozenset(const std::set<std::string>& names)
{
    py::set result;
    for (const std::string& name : names)
    {
        result.add(fromText(name));
    }
    return py::frozenset(result);
}

const char* const CONNECT_DOC = R"(Connects to a weft server and returns a Client.

host, port: where the server listens (port 7420 by default).
transport: 'tcp' (default) or 'eudp'.
on_trigger(name, value), on_update(name, value): a trigger or state update
    arrived; on_status(status): 'connected', then 'disconnected' when the
    connection ends. Each runs on a thread of the library with the GIL taken,
    one at a time per connection. An exception raised in one goes to
    sys.unraisablehook (by default printed with its traceback) and the
    connection goes on. Events without a callback wait for Client.events().
send_mode, receive_mode: EUDP: 'realtime' or 'reliable', asked of the server
    after connecting (the server sends in send_mode, receives in receive_mode);
    a server that does not allow the mode leaves the request unanswered, and
    connect raises after 10 s.
window: EUDP: how many messages the server may have in flight (1 to 999).
strict_peer: EUDP: ignore datagrams that do not come from the server.

Raises weft.Error when the server cannot be reached or refuses a mode or
window; ValueError or TypeError for bad arguments.)";

const char* const LISTEN_DOC = R"(Listens for weft clients and returns a Server.

host: the address to listen on ('0.0.0.0', every interface, by default).
port: 7420 by default; 0 picks a free one (see Server.port).
transport: 'tcp' (default) or 'eudp'.
on_connect(conn), on_disconnect(conn), on_subscribe(conn, name),
    on_unsubscribe(conn, name), on_call(conn, name, params): conn is the
    Connection it happened on, params a dict. Each runs on a thread of the
    library with the GIL taken; on_connect runs before the client's first
    request is read. An exception raised in one goes to sys.unraisablehook.
    Events without a callback wait for Server.events().
allow_send, allow_receive: EUDP: which modes a client may ask this server to
    send or receive in: 'realtime', 'reliable' or 'both' (default).

The server keeps the last value of every item it updates and sends it to a
client that subscribes later. Raises weft.Error when it cannot listen.)";

const char* const EVENTS_DOC = R"(An iterator of the events that no callback takes, in order.

Each step waits up to timeout seconds (None: without limit) for the next
event; the iteration ends when that time passes, or after the last event of
a closed client or server. Ctrl-C interrupts the wait.)";

} // namespace

} // namespace weftpy

PYBIND11_MODULE(weft, m)
{
    using namespace weftpy;
    namespace py = pybind11;

    m.doc() = "weft: named, typed parameters between processes over TCP or EUDP.\n\n"
              "Values are int (32-bit), float (32-bit: 0.1 arrives as 0.10000000149011612), "
              "bool, str or None; a call's parameters are a dict. The library is initialised "
              "on import and released at exit, after every client and server left open is "
              "closed.";
    runtime::start();

    py::register_exception<WeftError>(m, "Error", PyExc_ConnectionError);
    defineEventType(m);

    py::class_<EventIterator>(m, "EventIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &EventIterator::next);

    py::class_<Peer, std::shared_ptr<Peer>>(m, "Connection",
                                            "A client's connection to a Server. Its sends raise "
                                            "weft.Error once it is closed.")
        .def(
            "trigger",
            [](Peer& peer, py::handle name, py::handle value)
            {
                sendValue(name, value,
                          [&](const std::string& n, const ParameterValue& v)
                          { peer.trigger(n, v); });
            },
            py::arg("name"), py::arg("value") = py::none(), "Sends a trigger to this client.")
        .def(
            "update",
            [](Peer& peer, py::handle name, py::handle value)
            {
                sendValue(name, value,
                          [&](const std::string& n, const ParameterValue& v)
                          { peer.update(n, v); });
            },
            py::arg("name"), py::arg("value"),
            "Sends a state update to this client only; the server does not keep it.")
        .def("close", &Peer::close, py::call_guard<py::gil_scoped_release>(),
             "Disconnects this client; inside a callback the disconnection finishes shortly "
             "after.")
        .def_property_readonly("connected", &Peer::isOpen, py::call_guard<py::gil_scoped_release>())
        .def_property_readonly(
            "subscriptions", [](const Peer& peer) { return toFrozenset(peer.getSubscriptions()); },
            "The names this client is subscribed to.")
        .def_property_readonly("peer", [](const Peer& peer)
                               { return peerTuple(peer.getPeerAddress(), peer.getPeerPort()); })
        .def("__eq__", [](const Peer& self, py::handle other)
             { return py::isinstance<Peer>(other) && &self == &other.cast<const Peer&>(); })
        .def("__hash__", [](const Peer& self) { return std::hash<const void*>()(&self); })
        .def("__repr__",
             [](const Peer& peer)
             {
                 return "<weft.Connection " + peer.getPeerAddress() + ":" +
                        std::to_string(peer.getPeerPort()) +
                        (peer.isOpen() ? " connected>" : " closed>");
             });

    py::class_<Client>(m, "Client",
                       "A connection to a weft server, made by weft.connect(). A context "
                       "manager: leaving the with block closes it.")
        .def(
            "subscribe",
            [](Client& client, py::args names)
            {
                std::vector<std::string> list;
                for (py::handle name : names)
                {
                    list.push_back(toName(name));
                }
                py::gil_scoped_release release;
                for (const std::string& name : list)
                {
                    client.m_core->subscribe(name);
                }
            },
            "subscribe(*names): asks for the triggers and updates of each item.")
        .def(
            "unsubscribe",
            [](Client& client, py::args names)
            {
                std::vector<std::string> list;
                for (py::handle name : names)
                {
                    list.push_back(toName(name));
                }
                py::gil_scoped_release release;
                for (const std::string& name : list)
                {
                    client.m_core->unsubscribe(name);
                }
            },
            "unsubscribe(*names)")
        .def(
            "call",
            [](Client& client, py::handle name, py::object params, py::kwargs kwargs)
            {
                const std::string function = toText(name, "a function name");
                py::dict all = params.is_none() ? py::dict() : py::dict(params);
                for (const auto& item : kwargs)
                {
                    all[item.first] = item.second;
                }
                const ParameterList list = toList(function, all);
                py::gil_scoped_release release;
                client.m_core->call(function, list);
            },
            py::arg("name"), py::arg("params") = py::none(), py::pos_only(),
            "call(name, params=None, /, **kwargs): calls a function of the server with the "
            "parameters of the dict and the keywords (keywords win).")
        .def(
            "set_send_mode",
            [](Client& client, const std::string& mode)
            {
                const EConnMode parsed = parseMode(mode);
                py::gil_scoped_release release;
                client.m_core->setSendMode(parsed);
            },
            py::arg("mode"),
            "Asks the server to send in 'realtime' or 'reliable' mode (EUDP; TCP is reliable). "
            "Waits for the answer, 10 s at most; raises weft.Error when it does not come (a server "
            "that does not allow the mode does not answer).")
        .def(
            "set_receive_mode",
            [](Client& client, const std::string& mode)
            {
                const EConnMode parsed = parseMode(mode);
                py::gil_scoped_release release;
                client.m_core->setReceiveMode(parsed);
            },
            py::arg("mode"), "Asks the server to receive in 'realtime' or 'reliable' mode.")
        .def(
            "set_window",
            [](Client& client, py::handle size)
            {
                const unsigned int window = toWindow(size);
                py::gil_scoped_release release;
                client.m_core->setWindowSize(window);
            },
            py::arg("size"), "EUDP: how many messages the server may have in flight (1 to 999).")
        .def(
            "events",
            [](Client& client, py::object timeout)
            { return EventIterator(client.m_core, client.m_core->getEvents(), timeout); },
            py::arg("timeout") = py::none(), EVENTS_DOC)
        .def(
            "close", [](Client& client) { client.m_core->close(); },
            py::call_guard<py::gil_scoped_release>(),
            "Disconnects; inside a callback the disconnection finishes shortly after.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__",
             [](Client& client, py::args)
             {
                 py::gil_scoped_release release;
                 client.m_core->close();
             })
        .def_property_readonly(
            "connected", [](const Client& client) { return client.m_core->isConnected(); },
            py::call_guard<py::gil_scoped_release>())
        .def_property_readonly("transport", [](const Client& client)
                               { return transportName(client.m_core->getTransport()); })
        .def_property_readonly(
            "peer", [](const Client& client)
            { return peerTuple(client.m_core->getPeerAddress(), client.m_core->getPeerPort()); })
        .def_property_readonly("local_port",
                               [](const Client& client) { return client.m_core->getLocalPort(); })
        .def("__repr__",
             [](const Client& client)
             {
                 const ClientCore& core = *client.m_core;
                 return std::string("<weft.Client ") + transportName(core.getTransport()) + " " +
                        core.getPeerAddress() + ":" + std::to_string(core.getPeerPort()) +
                        (core.isConnected() ? " connected>" : " closed>");
             });

    py::class_<Server>(m, "Server",
                       "A listening weft server, made by weft.listen(). A context manager: "
                       "leaving the with block closes it and all its connections.")
        .def(
            "update",
            [](Server& server, py::handle name, py::handle value, bool broadcast)
            {
                int sent = 0;
                sendValue(name, value,
                          [&](const std::string& n, const ParameterValue& v)
                          { sent = server.m_core->push(false, broadcast, n, v); });
                return sent;
            },
            py::arg("name"), py::arg("value"), py::kw_only(), py::arg("broadcast") = false,
            "Keeps value as the item's state and sends it to its subscribers (to every client "
            "with broadcast=True). Returns the number of clients it went to.")
        .def(
            "trigger",
            [](Server& server, py::handle name, py::handle value, bool broadcast)
            {
                int sent = 0;
                sendValue(name, value,
                          [&](const std::string& n, const ParameterValue& v)
                          { sent = server.m_core->push(true, broadcast, n, v); });
                return sent;
            },
            py::arg("name"), py::arg("value") = py::none(), py::kw_only(),
            py::arg("broadcast") = false,
            "Sends a trigger to the item's subscribers (to every client with broadcast=True). "
            "Returns the number of clients it went to.")
        .def_property_readonly(
            "connections",
            [](const Server& server)
            {
                std::vector<std::shared_ptr<Peer>> peers;
                {
                    py::gil_scoped_release release;
                    peers = server.m_core->getConnections();
                }
                py::list result;
                for (const std::shared_ptr<Peer>& peer : peers)
                {
                    result.append(py::cast(peer));
                }
                return result;
            },
            "The connected clients, as a list of Connection.")
        .def_property_readonly(
            "state",
            [](const Server& server)
            {
                std::map<std::string, ParameterValue> values;
                {
                    py::gil_scoped_release release;
                    values = server.m_core->getState();
                }
                py::dict result;
                for (const auto& [name, value] : values)
                {
                    result[fromText(name)] = fromValue(value);
                }
                return result;
            },
            "A dict of the last value of every item updated.")
        .def_property_readonly("port",
                               [](const Server& server) { return server.m_core->getPort(); })
        .def_property_readonly("transport", [](const Server& server)
                               { return transportName(server.m_core->getTransport()); })
        .def_property_readonly("closed",
                               [](const Server& server) { return !server.m_core->isOpen(); })
        .def(
            "events",
            [](Server& server, py::object timeout)
            { return EventIterator(server.m_core, server.m_core->getEvents(), timeout); },
            py::arg("timeout") = py::none(), EVENTS_DOC)
        .def(
            "close", [](Server& server) { server.m_core->close(); },
            py::call_guard<py::gil_scoped_release>(),
            "Stops listening and disconnects every client; inside a callback this finishes "
            "shortly after.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__",
             [](Server& server, py::args)
             {
                 py::gil_scoped_release release;
                 server.m_core->close();
             })
        .def("__repr__",
             [](const Server& server)
             {
                 const ServerCore& core = *server.m_core;
                 return std::string("<weft.Server ") + transportName(core.getTransport()) +
                        " port " + std::to_string(core.getPort()) +
                        (core.isOpen() ? ">" : " closed>");
             });

    m.def("connect", &connect, py::arg("host"), py::arg("port") = WEFT_TOOL_DEFAULT_PORT,
          py::kw_only(), py::arg("transport") = "tcp", py::arg("on_trigger") = py::none(),
          py::arg("on_update") = py::none(), py::arg("on_status") = py::none(),
          py::arg("send_mode") = py::none(), py::arg("receive_mode") = py::none(),
          py::arg("window") = py::none(), py::arg("strict_peer") = false, CONNECT_DOC);
    m.def("listen", &listen, py::arg("host") = "0.0.0.0", py::arg("port") = WEFT_TOOL_DEFAULT_PORT,
          py::kw_only(), py::arg("transport") = "tcp", py::arg("on_connect") = py::none(),
          py::arg("on_disconnect") = py::none(), py::arg("on_subscribe") = py::none(),
          py::arg("on_unsubscribe") = py::none(), py::arg("on_call") = py::none(),
          py::arg("allow_send") = "both", py::arg("allow_receive") = "both", LISTEN_DOC);
    m.def(
        "set_log_level",
        [](int level)
        {
            runtime::checkRunning();
            if (level < tavo::LOG_LEVEL_OFF || level > tavo::LOG_LEVEL_TRACE)
            {
                throw py::value_error("a log level is 0 (none) to 6 (trace)");
            }
            tavo::LogManager::getInstance()->setMaxLevel(level);
        },
        py::arg("level"),
        "How much of the library's log goes to stderr: 0 none, 2 errors, 3 also dropped "
        "messages (default), up to 6.");
    m.attr("DEFAULT_PORT") = WEFT_TOOL_DEFAULT_PORT;
    m.attr("__version__") = WEFT_PYTHON_VERSION;

    // Runs while library threads may still take the GIL, unlike the
    // destruction of module objects during finalisation.
    py::module_::import("atexit").attr("register")(py::cpp_function([] { runtime::stop(); }));
}
