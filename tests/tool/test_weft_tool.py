#!/usr/bin/env python3
"""Process tests of the weft tool: real `weft serve`, `weft connect` and
`weft relay` processes talking over loopback. (`weft demo` runs in the Debian
packages' test, from the packaged tool.)

Run: test_weft_tool.py --weft PATH/TO/weft [unittest arguments]
Every wait is on an output line or an exit, with a time limit."""

import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

WEFT = None
# Generous, so that sanitizer builds on a busy machine pass too; a passing run
# never waits this long. What must be quick says so with a bound of its own.
WAIT = 30.0


class Proc:
    """A running weft process; threads collect its stdout lines and stderr."""

    def __init__(self, *args, stdin=True):
        self.args = [WEFT, *args]
        self.proc = subprocess.Popen(self.args, stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                     errors="replace")
        self.lines, self.err, self.used = [], "", set()  # used: indices of lines matched already
        self.changed = threading.Condition()
        self.readers = [threading.Thread(target=self._read, args=(stream,), daemon=True)
                        for stream in (self.proc.stdout, self.proc.stderr)]
        for reader in self.readers:
            reader.start()

    def _read(self, stream):
        for text in stream:
            with self.changed:
                if stream is self.proc.stdout:
                    self.lines.append(text.rstrip("\n"))
                else:
                    self.err += text
                self.changed.notify_all()
        with self.changed:
            self.changed.notify_all()

    def transcript(self):
        return "%s\n--- stdout:\n%s\n--- stderr:\n%s" % (" ".join(self.args), "\n".join(self.lines),
                                                         self.err)

    def _until(self, found, what, timeout):
        deadline = time.monotonic() + timeout
        with self.changed:
            while (result := found()) is None:
                ended = not any(reader.is_alive() for reader in self.readers)
                if ended or not self.changed.wait(max(0.0, deadline - time.monotonic())):
                    raise AssertionError("no %s\n%s" % (what, self.transcript()))
        return result

    def line(self, match, timeout=WAIT):
        """The first stdout line not matched before that contains `match` (or
        satisfies it); lines of other processes' threads may come in any order."""
        def found():
            for i, line in enumerate(self.lines):
                if i not in self.used and (match(line) if callable(match) else match in line):
                    self.used.add(i)
                    return line
        return self._until(found, "line matching %r" % (match,), timeout)

    def error(self, text, timeout=WAIT):
        """Waits until stderr holds `text`."""
        self._until(lambda: True if text in self.err else None, "%r on stderr" % text, timeout)

    def event(self, kind, /, timeout=WAIT, **fields):
        """The next JSON event of that kind whose fields hold the given values."""
        def matches(line):
            event = json.loads(line)
            return event.get("event") == kind and all(event.get(k) == v for k, v in fields.items())
        return json.loads(self.line(matches, timeout))

    def send(self, text):
        self.proc.stdin.write(text + "\n")
        self.proc.stdin.flush()

    def wait(self, timeout=WAIT):
        """The exit status, once the process has ended and its output is read."""
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running after %.0f s\n%s" % (timeout, self.transcript()))
        for reader in self.readers:
            reader.join(timeout)
        return code

    def stop(self):
        """Ends the process the way a user would (SIGTERM) so that sanitizer
        builds check the shutdown too; then the output must hold no report."""
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        self.wait()
        for stream in (self.proc.stdin, self.proc.stdout, self.proc.stderr):
            if stream:
                stream.close()
        if any(report in self.err for report in ("Sanitizer", "runtime error:")):
            raise AssertionError("sanitizer report\n" + self.transcript())


class ToolTest(unittest.TestCase):
    def start(self, *args, stdin=True):
        proc = Proc(*args, stdin=stdin)
        self.addCleanup(proc.stop)
        return proc

    def serve(self, transport, *extra):
        """A server on a free loopback port, and that port."""
        server = self.start("serve", "-t", transport, "--host", "127.0.0.1", "--port", "0", "--json",
                            *extra)
        return server, server.event("listening", transport=transport)["port"]

    def free_port(self, kind):
        with socket.socket(socket.AF_INET, kind) as s:
            s.bind(("127.0.0.1", 0))
            return s.getsockname()[1]

    def silent_udp(self):
        """The port of a UDP socket that never answers; its socket waits for the next datagram."""
        self.silent = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.silent.close)
        self.silent.bind(("127.0.0.1", 0))
        self.silent.settimeout(WAIT)
        return self.silent.getsockname()[1]


class Conversation:
    """The same stories on both transports."""
    TRANSPORT = None

    def test_requests_and_pushes_reach_the_clients_they_are_for(self):
        server, port = self.serve(self.TRANSPORT)
        server.send("update level 0.5")
        self.assertEqual(server.event("update", name="level")["clients"], 0)
        client = self.start("connect", "127.0.0.1:%d" % port, "-t", self.TRANSPORT, "--json",
                            "-s", "level", "--call", "play", "clip=intro", "count=3")
        self.assertEqual(client.event("connected")["port"], port)
        # A subscriber first gets the item's current value.
        self.assertEqual(server.event("subscribe", name="level")["answered"], True)
        update = client.event("update", name="level")
        self.assertEqual((update["type"], update["value"]), ("float", 0.5))
        # The largest update goes and one byte more is refused unsent, so the
        # next update the client sees is the largest: "level" and its NUL, then
        # a string value, its length plus 2.
        server.send("update level s:" + "x" * 1481)
        server.error('not sent: update "level" needs 1489 bytes (the value 1483); a message '
                     'carries at most 1488')
        server.send("update level s:" + "x" * 1480)
        self.assertEqual(server.event("update", name="level")["clients"], 1)
        self.assertEqual(client.event("update", name="level")["value"], "x" * 1480)
        self.assertEqual(server.event("call", name="play")["params"], {"clip": "intro", "count": 3})
        other = self.start("connect", "127.0.0.1:%d" % port, "-t", self.TRANSPORT, "--json",
                           "-s", "other")
        server.event("subscribe", client=2, name="other")

        for command, kind, value in (("trigger level 'studio A'", "trigger", "studio A"),
                                     ("update level n:", "update", None)):
            server.send(command)
            self.assertEqual(server.event(kind, name="level")["clients"], 1, command)
            self.assertEqual(client.event(kind, name="level")["value"], value, command)
        server.send("broadcast update all 2")
        self.assertEqual(server.event("update", name="all", broadcast=True)["clients"], 2)
        for each in (client, other):
            self.assertEqual(each.event("update", name="all")["value"], 2)
        # Pushes on one connection keep their order: the other client, which
        # has the broadcast, never got the item it did not subscribe to.
        self.assertFalse(any('"level"' in line for line in other.lines), other.transcript())

        # A client ends at the end of its input, or on quit.
        client.send("unsub level")
        server.event("unsubscribe", name="level")
        client.proc.stdin.close()
        other.send("quit")
        for number, each in enumerate((client, other), 1):
            self.assertEqual(each.event("disconnected")["lost"], False)
            self.assertEqual(each.wait(), 0, each.transcript())
            server.event("disconnected", client=number)


class TcpConversationTest(Conversation, ToolTest):
    TRANSPORT = "tcp"


class EudpConversationTest(Conversation, ToolTest):
    TRANSPORT = "eudp"


class EudpModeTest(ToolTest):
    def test_a_mode_and_a_window_are_agreed_and_a_mode_the_server_does_not_allow_refused(self):
        server, port = self.serve("eudp", "--allow-send", "realtime")
        client = self.start("connect", "127.0.0.1:%d" % port, "-t", "eudp", "--json",
                            "--receive-mode", "reliable", "--window", "20", "-s", "level")
        self.assertEqual(client.event("mode", direction="receive")["mode"], "reliable")
        self.assertEqual(client.event("window")["size"], 20)
        self.assertEqual(server.event("mode", receive="reliable")["receiving"], "reliable")
        self.assertEqual(server.event("window")["size"], 20)
        server.event("subscribe", name="level")
        server.send("update level 5")
        self.assertEqual(client.event("update")["value"], 5)
        # Asked once the server has the connection in hand: an accepted EUDP
        # transport answers requests before the application's onConnection
        # has run, so a request at the very start could slip past the limit.
        client.send("send-mode reliable")
        refused = server.event("mode", send="reliable")
        self.assertFalse(refused["granted"])
        self.assertEqual(refused["sending"], "realtime")
        server.error("unknown mode request (ignoring)")  # the library's warning, shown by default


class ExitTest(ToolTest):
    def test_each_failure_exits_with_its_code_and_reason_and_help_with_0_and_examples(self):
        port = self.free_port(socket.SOCK_STREAM)
        silent = self.silent_udp()
        # Bad arguments exit 2 with one line and where to read more.
        cases = [([], 2, "A subcommand is required"), (["bogus"], 2, "bogus"),
                 (["relay", "-t", "eudp", "--listen", "1", "--to", "h", "--drop", "101%"], 2,
                  "'101%' is not a percentage"),
                 (["relay", "--listen", "1", "--to", "h", "--drop", "5%"], 2, "apply to -t eudp only"),
                 (["connect", "h", "--call", "play", "s=" + "x" * 1500], 2,
                  'not sent: call "play" needs 1510 bytes (parameter "s" 1504); a message carries at most 1488'),
                 (["connect", "h", "-t", "udp"], 2, "'udp' is not one of tcp|eudp"),
                 (["connect", "h", "--window", "5"], 2, "apply to --transport eudp only"),
                 (["--help"], 0, "examples:"), (["serve", "--help"], 0, "examples:"),
                 (["connect", "-h"], 0, "examples:"), (["relay", "--help"], 0, "examples:"),
                 (["connect", "127.0.0.1:%d" % port], 1, "cannot connect to 127.0.0.1:%d over tcp" % port),
                 (["connect", "127.0.0.1:%d" % silent, "-t", "eudp", "--timeout", "0.3"], 1,
                  "no connection to 127.0.0.1:%d within --timeout" % silent)]
        for transport in ("tcp", "eudp"):
            taken = self.serve(transport)[1]
            address = "127.0.0.1:%d" % taken
            cases += [(["connect", "nosuch.invalid", "-t", transport], 1, "unknown host 'nosuch.invalid'"),
                      (["serve", "-t", transport, "--host", "127.0.0.1", "--port", str(taken)], 1,
                       "cannot listen on %s %s: address in use" % (transport, address)),
                      # A count not reached in time exits 3; a plain time limit ends a client well.
                      (["connect", address, "-t", transport, "-n", "1", "--timeout", "1"], 3,
                       "timed out after 0 of 1 messages"),
                      (["connect", address, "-t", transport, "--timeout", "1"], 0, "")]
        for args, proc, code, reason in [(args, self.start(*args, stdin=False), code, reason)
                                         for args, code, reason in cases]:
            self.assertEqual(proc.wait(), code, proc.transcript())
            self.assertIn(reason, "\n".join(proc.lines) if reason == "examples:" else proc.err, args)
            if code == 2:
                command = "weft" + (" " + args[0] if args and args[0] != "bogus" else "")
                self.assertEqual(proc.err.splitlines()[1:], ["see '%s --help'" % command], args)


class SignalTest(ToolTest):
    def test_a_stopped_or_killed_server_ends_its_clients_which_exit_1(self):
        # TCP hears the end at once; EUDP's dead-peer time is guarded in
        # tests/system/EUDPWireTest.cpp with shortened time-outs.
        for kill in (False, True):
            server, port = self.serve("tcp")
            client = self.start("connect", "127.0.0.1:%d" % port, "-s", "x")
            server.event("subscribe", name="x")
            if kill:
                server.proc.kill()
                client.line("disconnected: the connection to 127.0.0.1:%d was lost" % port)
            else:
                server.proc.send_signal(signal.SIGTERM)
                self.assertEqual(server.wait(), 0, server.transcript())
                server.event("stopped")
            self.assertEqual(client.wait(), 1, client.transcript())

    def test_sigterm_and_ctrl_c_stop_a_client_connected_or_still_connecting(self):
        silent = self.silent_udp()
        for transport, sig, code in (("tcp", signal.SIGTERM, 0), ("eudp", signal.SIGINT, 130),
                                     (None, signal.SIGINT, 130)):
            if transport:
                server, port = self.serve(transport)
                client = self.start("connect", "127.0.0.1:%d" % port, "-t", transport, "-s", "x")
                server.event("subscribe", name="x")
            else:  # an EUDP connect that goes unanswered: its CON shows it waits
                client = self.start("connect", "127.0.0.1:%d" % silent, "-t", "eudp", stdin=False)
                self.silent.recv(64)
            started = time.monotonic()
            client.proc.send_signal(sig)
            self.assertEqual(client.wait(timeout=5), code, client.transcript())
            # Well before the 5 s a connect waits, with room for a sanitizer build.
            self.assertLess(time.monotonic() - started, 3.0, transport)
            if transport:
                self.assertEqual(client.lines[-1], "disconnected", client.transcript())
                # The server hears the client go at once: EOF on TCP, DIS on EUDP.
                server.event("disconnected", client=1)


class RelayTest(ToolTest):
    def test_relay_prints_both_ways_and_what_it_drops_is_sent_again(self):
        # EUDP reliable both ways through 30% loss (the handshake and the mode
        # requests too, which are repeated): every call arrives once and in
        # order. TCP passes everything, late.
        for transport, impairment, modes in (
                ("eudp", ["--drop", "30%", "--seed", "12"],
                 ["--send-mode", "reliable", "--receive-mode", "reliable"]),
                ("tcp", ["--delay", "20ms"], [])):
            server, port = self.serve(transport)
            server.send("update level 'studio A'")
            relay = self.start("relay", "-t", transport, "--listen", "127.0.0.1:0", "--to",
                               "127.0.0.1:%d" % port, "--print", "--json", *impairment)
            relay_port = relay.event("listening")["port"]
            calls = [word for n in range(10) for word in ("-c", "f", "n=%d" % n)]
            # The client ends after its first update: what it sent must still
            # arrive, its end waiting for the acknowledgements.
            client = self.start("connect", "127.0.0.1:%d" % relay_port, "-t", transport, *modes,
                                "-s", "level", "-n", "1", *calls, stdin=False)
            self.assertEqual(client.wait(), 0, client.transcript())
            self.assertEqual(relay.event("update", **{"from": "server"})["value"], "studio A")
            relay.event("subscribe", name="level", client=1)
            arrived = [server.event("call", params={"n": n})["params"]["n"] for n in range(10)]
            self.assertEqual(arrived, list(range(10)))
            relay.proc.send_signal(signal.SIGINT)
            self.assertEqual(relay.wait(), 130, relay.transcript())
            stopped = relay.event("stopped")
            if transport == "eudp":
                self.assertGreater(stopped["to_server"]["dropped"], 0)
            else:
                self.assertGreater(stopped["to_server_bytes"], 0)


def has_ipv6_loopback():
    try:
        with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as probe:
            probe.bind(("::1", 0))
        return True
    except OSError:
        return False


@unittest.skipUnless(has_ipv6_loopback(), "no IPv6 loopback (::1) on this machine")
class Ipv6Test(ToolTest):
    def test_a_server_on_colons_takes_ipv6_and_ipv4_clients_directly_and_through_a_relay(self):
        for transport in ("tcp", "eudp"):
            server = self.start("serve", "-t", transport, "--host", "::", "--port", "0", "--json")
            port = server.event("listening", host="::")["port"]
            server.send("update level 0.5")
            server.event("update", name="level")
            relay = self.start("relay", "-t", transport, "--listen", "[::1]:0", "--to", "[::1]:%d" % port,
                               "--json")
            relayed = relay.event("listening", host="::1", to="[::1]:%d" % port)["port"]
            for target, peer in (("[::1]:%d" % port, "[::1]:"), ("127.0.0.1:%d" % port, "127.0.0.1:"),
                                 ("[::1]:%d" % relayed, "[::1]:")):
                client = self.start("connect", target, "-t", transport, "-s", "level", "-n", "1", stdin=False)
                self.assertEqual(client.wait(), 0, client.transcript())
                self.assertIn("connected to %s over %s" % (target, transport), client.lines[0])
                self.assertIn('update "level" 0.5', client.lines)
                self.assertTrue(server.event("connected")["peer"].startswith(peer), server.transcript())
            for args, reason in ((["connect", "-6", "127.0.0.1:%d" % port], "'127.0.0.1' is not an IPv6 address"),
                                 (["serve", "--host", "::1", "--port", str(port)],
                                  "WEFT: cannot bind [::1]:%d: address in use" % port)):
                refused = self.start(*args, "-t", transport, stdin=False)
                self.assertEqual(refused.wait(), 1, refused.transcript())
                self.assertIn(reason, refused.err)


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] != "--weft":
        sys.exit("usage: test_weft_tool.py --weft PATH [unittest arguments]")
    WEFT = sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
