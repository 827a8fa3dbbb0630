"""Clients and servers: subscriptions and the server's kept values, one
connection's sends, modes, failures and closing."""

import pytest
import weft
from conftest import connect, expect, take


def test_updates_reach_subscribers_and_late_subscribers_get_the_last_value(pair):
    server, early, conn = pair
    early.subscribe("level", "mute")
    expect(server, "subscribe", "mute")
    assert conn.subscriptions == {"level", "mute"}
    assert server.update("level", 1) == 1
    assert expect(early, "update", "level").value == 1

    with connect(server.transport, server) as late:
        late_conn = expect(server, "connected").connection
        late.subscribe("level")
        expect(server, "subscribe", "level")
        assert [(e.kind, e.value) for e in take(late, 2)] == [("connected", None), ("update", 1)]
        early.unsubscribe("level")
        assert expect(server, "unsubscribe", "level").connection == conn
        assert (server.trigger("level", 2), server.trigger("level", 3, broadcast=True)) == (1, 2)
        assert [(e.kind, e.value) for e in take(early, 1)] == [("trigger", 3)]
        assert [e.value for e in take(late, 2)] == [2, 3]
        late_conn.update("level", "just you")
        assert expect(late, "update").value == "just you"
        assert server.state == {"level": 1}
        assert set(server.connections) == {conn, late_conn}


def test_a_closed_connection_ends_its_client_and_leaving_the_with_blocks_closes_both_ends(transport):
    with weft.listen("127.0.0.1", 0, transport=transport) as server:
        client = connect(transport, server)
        conn = expect(server, "connected").connection
        conn.close()
        expect(client, "disconnected")
        assert list(client.events()) == [] and not client.connected
        assert expect(server, "disconnected").connection == conn
        assert server.connections == [] and not conn.connected
        with pytest.raises(weft.Error):
            conn.trigger("x")
        with pytest.raises(weft.Error):
            client.subscribe("x")
        with connect(transport, server) as client:
            pass
        assert expect(server, "disconnected") and not client.connected
    assert server.closed
    with pytest.raises(weft.Error):
        server.update("x", 1)


# A refused EUDP mode goes unanswered until its 10 s time-out, so only modes
# granted at once are asked for here.
MODES = [
    ("tcp", lambda c: c.set_send_mode("realtime"), weft.Error),
    ("tcp", lambda c: c.set_window(32), weft.Error),
    ("eudp", lambda c: c.set_send_mode("realtime"), None),
    ("eudp", lambda c: c.set_window(999), None),
    ("eudp", lambda c: c.set_window(1000), ValueError),
    ("eudp", lambda c: c.set_send_mode("fast"), ValueError),
]


@pytest.mark.parametrize("transport, ask, error", MODES)
def test_modes_and_windows(pair, ask, error):
    server, client, _ = pair
    if error:
        with pytest.raises(error):
            ask(client)
    else:
        ask(client)
    assert server.trigger("after", broadcast=True) == 1
    assert expect(client, "trigger", "after")


def closed_port():
    with weft.listen("127.0.0.1", 0) as server:
        return server.port


# Each attempt is given a port where a TCP server listens.
FAILURES = [
    (lambda busy: weft.connect("127.0.0.1", closed_port()), weft.Error),
    (lambda busy: weft.listen("127.0.0.1", busy), weft.Error),
    (lambda busy: weft.listen("no-such-host.invalid", 0), weft.Error),
    (lambda busy: weft.connect("127.0.0.1", busy, transport="udp"), ValueError),
    (lambda busy: weft.connect("127.0.0.1", 70000), ValueError),
    (lambda busy: weft.listen(on_call="not callable"), TypeError),
]


@pytest.mark.parametrize("attempt, error", FAILURES)
def test_failures_raise(attempt, error):
    with weft.listen("127.0.0.1", 0) as busy:
        with pytest.raises(error):
            attempt(busy.port)
