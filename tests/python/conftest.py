"""Shared pieces of the weft module's tests: loopback servers and clients on
both transports, waits with time limits, and the weft tool as the C++ peer."""

import faulthandler
import gc
import itertools
import json
import os
import queue
import subprocess
import threading
import time

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


class Tool:
    """A weft tool process printing JSON lines, read with a time limit."""

    def __init__(self, *args):
        path = os.environ.get("WEFT_TOOL")
        if not path:
            pytest.skip("the weft tool is not built")
        self.proc = subprocess.Popen([path, *args, "--json"], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(json.loads(line))
        self.lines.put(None)

    def event(self, kind, **fields):
        """The next JSON event of that kind holding the given fields."""
        seen = []
        deadline = time.monotonic() + WAIT
        while True:
            try:
                event = self.lines.get(timeout=max(0, deadline - time.monotonic()))
            except queue.Empty:
                event = None
            if event is None:
                self.proc.kill()
                pytest.fail(f"no {kind} {fields}; saw {seen}\n{self.proc.stderr.read()}")
            if event.get("event") == kind and fields.items() <= event.items():
                return event
            seen.append(event)

    def send(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()

    def close(self):
        self.proc.kill()
        self.proc.communicate()
