#!/usr/bin/env python3
"""A cue runner: waits for the show caller's "go" trigger and fires the next
cue, each a few function calls on the show-control server; shows the
server's "level" as it changes and stops on a "stop" trigger.

Try it against the weft tool:
    weft serve --port 7420              # then type: trigger go n:   and later: trigger stop n:
    python3 examples/python/cue_runner.py localhost
"""

import argparse

import weft

CUES = [
    [("lights", {"scene": "preset", "fade": 3.0})],
    [("play", {"clip": "intro", "loop": False, "gain": 0.8}), ("lights", {"scene": "warm"})],
    [("play", {"clip": "theme", "loop": True, "gain": 1.0})],
    [("stop_all", {}), ("lights", {"scene": "blackout", "fade": 5.0})],
]


def show_level(name, value):
    # Runs on a thread of the library; print is safe there.
    print(f"  {name} is now {value}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("host")
    parser.add_argument("port", nargs="?", type=int, default=weft.DEFAULT_PORT)
    parser.add_argument("--transport", choices=["tcp", "eudp"], default="tcp")
    args = parser.parse_args()

    with weft.connect(args.host, args.port, transport=args.transport,
                      on_update=show_level) as client:
        client.subscribe("go", "stop", "level")
        print(f"connected to {args.host}:{args.port}, {len(CUES)} cues standing by")
        next_cue = 0
        # Triggers and the status have no callback, so they arrive here.
        for event in client.events():
            if event.kind == "disconnected":
                print("the server went away")
                return 1
            if event.kind != "trigger":
                continue
            if event.name == "stop":
                print("stopped")
                return 0
            if event.name == "go" and next_cue < len(CUES):
                print(f"cue {next_cue + 1}")
                for function, params in CUES[next_cue]:
                    client.call(function, params)
                    print(f"  called {function} {params}")
                next_cue += 1
                if next_cue == len(CUES):
                    print("last cue done")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
