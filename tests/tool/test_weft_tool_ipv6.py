#!/usr/bin/env python3
"""Process tests of the weft tool over IPv6: serve, connect and relay on ::1
and ::, IPv4 clients of a dual-stack server, -4/-6, and listen errors.

Run: test_weft_tool_ipv6.py --weft PATH/TO/weft [unittest arguments]
Exits 77 when every test skipped (no IPv6 loopback here)."""

import os
import socket
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import test_weft_tool as tool  # noqa: E402


def has_ipv6_loopback():
    try:
        with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as probe:
            probe.bind(("::1", 0))
        return True
    except OSError:
        return False


@unittest.skipUnless(has_ipv6_loopback(), "this machine has no IPv6 loopback (::1)")
class Ipv6ToolTest(tool.ToolTest):
    def serve6(self, transport, host="::", *extra):
        server = self.start("serve", "-t", transport, "--host", host, "--port", "0", "--json", *extra)
        return server, server.event("listening", transport=transport, host=host)["port"]

    def test_a_server_on_colons_takes_ipv6_and_ipv4_clients_on_both_transports(self):
        for transport in ("tcp", "eudp"):
            server, port = self.serve6(transport)
            server.send("update level 0.5")
            server.event("update", name="level")
            for host, peer in (("[::1]", "[::1]:"), ("127.0.0.1", "127.0.0.1:"),
                               ("[::ffff:127.0.0.1]", "127.0.0.1:")):
                target = "%s:%d" % (host, port)
                client = self.start("connect", target, "-t", transport, "-s", "level", "-n", "1",
                                    stdin=False)
                self.assertEqual(client.wait(), 0, client.transcript())
                self.assertIn('update "level" 0.5', client.lines)
                self.assertTrue(client.lines[0].startswith("connected to %s over %s" % (target, transport)),
                                client.transcript())
                self.assertTrue(server.event("connected")["peer"].startswith(peer), server.transcript())

    def test_minus_6_keeps_ipv4_clients_out_and_each_flag_refuses_the_other_family(self):
        server, port = self.serve6("tcp", "::", "-6")
        refused = self.start("connect", "127.0.0.1:%d" % port, stdin=False)
        self.assertEqual(refused.wait(), 1, refused.transcript())
        self.assertIn("cannot connect to 127.0.0.1:%d over tcp" % port, refused.err)
        taken = self.start("connect", "-6", "[::1]:%d" % port, "-s", "x", stdin=False)
        self.assertEqual(taken.wait(), 0, taken.transcript())
        server.event("subscribe", name="x")
        for args, message in ((["connect", "-4", "[::1]:%d" % port], "'::1' is not an IPv4 address (-4)"),
                              (["connect", "-6", "127.0.0.1"], "'127.0.0.1' is not an IPv6 address (-6)"),
                              (["serve", "-4", "--host", "::"], "cannot listen on tcp [::]:7420: '::' is not")):
            wrong = self.start(*args, stdin=False)
            self.assertEqual(wrong.wait(), 1, wrong.transcript())
            self.assertIn(message, wrong.err)
        for args in (["connect", "-4", "-6", "::1"], ["connect", "[::1"], ["relay", "--listen", "::1", "--to", "::1"]):
            usage = self.start(*args, stdin=False)
            self.assertEqual(usage.wait(), 2, usage.transcript())

    def test_a_taken_ipv6_port_is_named_with_the_reason_on_both_transports(self):
        for transport in ("tcp", "eudp"):
            _, port = self.serve6(transport, "::1")
            second = self.start("serve", "-t", transport, "--host", "::1", "--port", str(port))
            self.assertEqual(second.wait(), 1, second.transcript())
            self.assertIn("WEFT: cannot bind [::1]:%d: address in use" % port, second.err)
            self.assertIn("cannot listen on %s [::1]:%d: address in use" % (transport, port), second.err)
            self.assertNotIn("accept", second.err)

    def test_relay_on_colons_joins_ipv6_and_ipv4_clients_to_an_ipv6_server(self):
        for transport, impairment in (("eudp", ["--drop", "20%", "--seed", "3"]), ("tcp", ["--delay", "5ms"])):
            server, port = self.serve6(transport, "::1")
            server.send("update level 0.5")
            relay = self.start("relay", "-t", transport, "--listen", "[::]:0", "--to", "[::1]:%d" % port,
                               "--json", *impairment)
            listening = relay.event("listening", host="::", to="[::1]:%d" % port)
            modes = ["--send-mode", "reliable", "--receive-mode", "reliable"] if transport == "eudp" else []
            for n, (target, peer) in enumerate((("[::1]", "[::1]:"), ("127.0.0.1", "127.0.0.1:")), 1):
                client = self.start("connect", "%s:%d" % (target, listening["port"]), "-t", transport,
                                    "-s", "level", "-n", "1", *modes, stdin=False)
                self.assertEqual(client.wait(), 0, client.transcript())
                self.assertIn('update "level" 0.5', client.lines)
                self.assertTrue(relay.event("client", client=n)["peer"].startswith(peer), relay.transcript())


def main():
    if len(sys.argv) < 3 or sys.argv[1] != "--weft":
        sys.exit("usage: test_weft_tool_ipv6.py --weft PATH [unittest arguments]")
    tool.WEFT = sys.argv[2]
    result = unittest.main(argv=[sys.argv[0]] + sys.argv[3:], exit=False).result
    if not result.wasSuccessful():
        return 1
    return 77 if result.testsRun and len(result.skipped) == result.testsRun else 0


if __name__ == "__main__":
    sys.exit(main())
