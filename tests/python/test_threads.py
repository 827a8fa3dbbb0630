"""Callbacks on the library's threads: exceptions in them, closing from
inside them, closing while they fire, and exiting with everything open."""

import subprocess
import sys
import threading

import pytest
import weft
from conftest import WAIT, connect, expect


def test_an_exception_in_a_callback_is_reported_and_the_connection_goes_on(transport, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", reported.append)
    good = threading.Semaphore(0)

    def react(*args):
        if "bad" in args:
            raise RuntimeError("bad")
        good.release()

    with weft.listen("127.0.0.1", 0, transport=transport, on_call=react) as server:
        with connect(transport, server, on_trigger=react) as client:
            client.call("bad")
            client.call("good")
            assert good.acquire(timeout=WAIT)
            server.trigger("bad", broadcast=True)
            server.trigger("good", broadcast=True)
            assert good.acquire(timeout=WAIT)
    assert [(type(r.exc_value), r.object) for r in reported] == [(RuntimeError, react)] * 2


# Which callback closes what: the client it runs for, the server's
# connection it runs for, or the whole server. Each closing finishes after
# the callback has returned.
CLOSERS = {
    "client in on_trigger": ("on_trigger", lambda server, client, conn: client.close()),
    "connection in on_call": ("on_call", lambda server, client, conn: conn.close()),
    "server in on_call": ("on_call", lambda server, client, conn: server.close()),
    "connection in on_connect": ("on_connect", lambda server, client, conn: conn.close()),
}


@pytest.mark.parametrize("where, closer", CLOSERS.values(), ids=CLOSERS.keys())
def test_closing_from_inside_a_callback(transport, where, closer):
    ended = threading.Event()
    endpoints = {}

    def close(*args):
        conn = args[0] if isinstance(args[0], weft.Connection) else None
        closer(endpoints["server"], endpoints.get("client"), conn)

    on_server = {where: close} if where != "on_trigger" else {}
    on_client = {where: close} if where == "on_trigger" else {}
    with weft.listen("127.0.0.1", 0, transport=transport, **on_server) as server:
        endpoints["server"] = server
        client = connect(transport, server, **on_client,
                         on_status=lambda status: status == "disconnected" and ended.set())
        endpoints["client"] = client
        if where == "on_trigger":
            expect(server, "connected")
            server.trigger("close", broadcast=True)
        elif where == "on_call":
            client.call("close")
        assert ended.wait(WAIT)
        assert not client.connected
        with pytest.raises(weft.Error):
            client.call("after")


def test_closing_while_callbacks_fire_waits_for_them_and_no_more_run(transport):
    calls = []
    many = threading.Event()

    def busy(*args):
        calls.append(sum(range(2000)))  # holds the GIL a while
        if len(calls) == 200:
            many.set()

    with weft.listen("127.0.0.1", 0, transport=transport) as server:
        client = connect(transport, server, on_update=busy)
        client.subscribe("x")
        expect(server, "subscribe", "x")

        def flood():
            try:
                while True:
                    server.update("x", 1)
            except weft.Error:
                return

        (pump := threading.Thread(target=flood)).start()
        assert many.wait(WAIT)
        client.close()
        after = len(calls)
        server.close()
        pump.join(WAIT)
        assert len(calls) == after


EXIT_SCRIPT = """
import threading, weft
def again(send):
    try:
        send()
    except weft.Error:  # the other side closed first
        pass
def open_pair(transport):
    # The client lives on only through its own callback, which the closing
    # at exit releases.
    server = weft.listen("127.0.0.1", 0, transport=transport,
                         on_call=lambda conn, name, params: again(lambda: conn.update("x", 1)))
    client = weft.connect("127.0.0.1", server.port, transport=transport,
                          on_update=lambda name, value: again(lambda: client.call("y")))
    client.call("start")
    threading.Thread(target=lambda: list(client.events()), daemon=True).start()
    return server
servers = [open_pair("tcp"), open_pair("eudp")]
print("left open", flush=True)
"""


def test_exiting_with_clients_and_servers_open_and_busy_closes_them():
    # Callbacks keep calling each other, a daemon thread waits for events.
    done = subprocess.run([sys.executable, "-c", EXIT_SCRIPT], capture_output=True, text=True,
                          timeout=WAIT)
    assert (done.returncode, done.stdout, done.stderr) == (0, "left open\n", "")
