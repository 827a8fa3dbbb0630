"""Shared pieces of the weft module's tests: loopback servers and clients on
both transports, and waits with time limits."""

import faulthandler
import gc
import itertools

import pytest
import weft

# Generous for a loaded machine; a passing run never waits this long.
WAIT = 20.0


@pytest.fixture(autouse=True)
def watchdog():
    """A deadlock between the GIL and a library thread fails the run with
    every thread's stack rather than stalling it."""
    faulthandler.dump_traceback_later(90, exit=True)
    yield
    # Handles left in reference cycles close here, while the watchdog runs.
    gc.collect()
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture(params=["tcp", "eudp"])
def transport(request):
    return request.param


def expect(endpoint, kind, name=None):
    """The next event of that kind (and name) on a client or server."""
    seen = []
    for event in endpoint.events(timeout=WAIT):
        if event.kind == kind and name in (None, event.name):
            return event
        seen.append(event)
    pytest.fail(f"no {kind} {name or ''} event; saw {seen}")


def take(endpoint, count):
    """The next `count` events of a client or server."""
    events = list(itertools.islice(endpoint.events(timeout=WAIT), count))
    assert len(events) == count, f"only {events}"
    return events


def connect(transport, server, **callbacks):
    return weft.connect("127.0.0.1", server.port, transport=transport, **callbacks)


@pytest.fixture
def pair(transport):
    """A server on a free port, a client and the server's connection to it."""
    with weft.listen("127.0.0.1", 0, transport=transport) as server:
        with connect(transport, server) as client:
            expect(client, "connected")
            yield server, client, expect(server, "connected").connection
