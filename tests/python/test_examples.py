"""The module against the C++ weft tool: a Python client with `weft serve`,
a Python server with `weft connect`, on both transports."""

import pathlib
import subprocess
import sys

import pytest
import weft
from conftest import WAIT, Tool, expect

CUE_RUNNER = pathlib.Path(__file__).parents[2] / "examples" / "python" / "cue_runner.py"


@pytest.fixture
def tool():
    started = []
    yield lambda *args: started.append(Tool(*args)) or started[-1]
    for process in started:
        process.close()


def test_python_client_with_weft_serve(transport, tool):
    serve = tool("serve", "-t", transport, "--host", "127.0.0.1", "--port", "0")
    port = serve.event("listening")["port"]
    serve.send("update level f:0.5")
    serve.event("update", name="level")
    with weft.connect("127.0.0.1", port, transport=transport) as client:
        client.subscribe("level")
        assert expect(client, "update", "level").value == 0.5
        for typed, value in [("i:-3", -3), ("b:on", True), ("'two words'", "two words"),
                             ("n:", None)]:
            serve.send("trigger level " + typed)
            event = expect(client, "trigger", "level")
            assert (type(event.value), event.value) == (type(value), value)
        client.call("play", {"clip": "intro"}, loop=True, gain=0.25, n=7, none=None)
        assert serve.event("call", name="play")["params"] == {
            "clip": "intro", "loop": True, "gain": 0.25, "n": 7, "none": None}
    serve.event("disconnected")


def test_python_server_with_weft_connect(transport, tool):
    with weft.listen("127.0.0.1", 0, transport=transport) as server:
        server.update("level", 0.5)
        connect = tool("connect", f"127.0.0.1:{server.port}", "-t", transport, "-s", "level",
                       "--call", "play", "clip=intro", "loop=on", "gain=f:0.25", "n=7")
        call = expect(server, "call", "play")
        assert call.value == {"clip": "intro", "loop": True, "gain": 0.25, "n": 7}
        connect.event("update", name="level", type="float", value=0.5)
        call.connection.trigger("go", 3)
        connect.event("trigger", name="go", type="int", value=3)
        connect.send("quit")
        assert expect(server, "disconnected").connection == call.connection


def test_the_cue_runner_example_fires_a_cue_on_go_and_ends_on_stop(tool):
    serve = tool("serve", "--host", "127.0.0.1", "--port", "0")
    port = serve.event("listening")["port"]
    runner = subprocess.Popen([sys.executable, CUE_RUNNER, "127.0.0.1", str(port)],
                              stdout=subprocess.DEVNULL)
    serve.event("subscribe", name="level")
    serve.send("trigger go n:")
    assert serve.event("call", name="lights")["params"] == {"scene": "preset", "fade": 3.0}
    serve.send("trigger stop n:")
    assert runner.wait(WAIT) == 0
