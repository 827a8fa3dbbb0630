"""The Python example programs, run as a user would, against a server of the module."""

import pathlib
import subprocess
import sys

import weft
from conftest import WAIT, expect

CUE_RUNNER = pathlib.Path(__file__).parents[2] / "examples" / "python" / "cue_runner.py"


def test_the_cue_runner_example_fires_a_cue_on_go_and_ends_on_stop():
    with weft.listen("127.0.0.1", 0) as server:
        runner = subprocess.Popen([sys.executable, CUE_RUNNER, "127.0.0.1", str(server.port)],
                                  stdout=subprocess.DEVNULL)
        expect(server, "subscribe", "level")
        server.trigger("go", None)
        assert expect(server, "call", "lights").value == {"scene": "preset", "fade": 3.0}
        server.trigger("stop", None)
        assert runner.wait(WAIT) == 0
