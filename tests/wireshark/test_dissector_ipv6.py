#!/usr/bin/env python3
"""The dissector on IPv6 captures: every WEFT and EUDP example decodes over IPv6 as it does over IPv4, and an
EUDP conversation on an accepted port is found over IPv6 too.

    python3 tests/wireshark/test_dissector_ipv6.py [-v]
"""
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import test_dissector as td  # noqa: E402

# text2pcap's IP headers: loopback and global addresses, and the IPv4 ones to compare with.
IPV4 = ["-4", "127.0.0.1,127.0.0.1"]
IPV6 = [["-6", "::1,::1"], ["-6", "2001:db8::7,2001:db8:ffff::1"]]


class Ipv6CaptureTest(td.DissectorCase):
    def decode_both(self, packets, header, fields, name):
        """The frames over IPv4 and over each IPv6 header, the IP layer's own fields aside."""
        decoded = []
        for n, ip in enumerate([IPV4] + IPV6):
            path = self.capture(packets, header, ip=ip, name="%s%d.pcapng" % (name, n))
            decoded.append(self.decode(path, fields + ["ipv6.src"]))
        self.assertEqual([("ipv6.src" in f) for f in decoded[1]], [True] * len(packets))
        return decoded

    def test_every_weft_and_eudp_example_decodes_over_ipv6_as_over_ipv4(self):
        for header, cases, fields, framing in (("-T", td.WeftMessageTest.CASES, td.WeftMessageTest.FIELDS, td.framed),
                                               ("-u", td.EudpTest.CASES, td.EudpTest.FIELDS, bytes)):
            v4, *v6s = self.decode_both([framing(m) for m, *_ in cases], header, fields, header[1:])
            self.assertEqual(len(v4), len(cases))
            for v6 in v6s:
                self.assertEqual(len(v6), len(cases))
                for frame, same, (_, info, wanted_fields, *wanted) in zip(v6, v4, cases):
                    self.assertFrame(frame, info, wanted_fields, wanted)
                    for field in fields + td.BASE_FIELDS[1:]:
                        self.assertEqual(frame.get(field), same.get(field), "%s: %s" % (info, field))

    def test_conversation_on_accepted_port_is_found_over_ipv6_without_preferences(self):
        for ip in IPV6:
            first = self.capture([td.datagram("CON", 0)], "-u", (40001, 7420), ip=ip, name="a.pcapng")
            accepted = self.capture([(td.SERVER, td.datagram("ACK", 0)),
                                     (td.CLIENT, td.datagram("CMD", 1, td.live_sender.SUBSCRIBE))],
                                    "-u", (40001, 41234), directional=True, ip=ip, name="b.pcapng")
            merged = os.path.join(self.dir, "m.pcapng")
            subprocess.run([td.MERGECAP, "-a", "-w", merged, first, accepted], check=True)
            frames = self.decode(merged, ["eudp.summary", "udp.srcport", "ipv6.dst"], prefs=["eudp.udp_port:7420"])
            self.assertEqual([f.get("eudp.summary") for f in frames],
                             [["EUDP CON seq=0"], ["EUDP ACK seq=0"], ["EUDP CMD seq=1 -> WEFT S level"]], ip)
            self.assertField(frames[1], "udp.srcport", ["41234"])
            self.assertEqual(frames[2]["ipv6.dst"], [ip[1].split(",")[1]])


if __name__ == "__main__":
    result = unittest.main(argv=sys.argv, exit=False).result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(77 if result.testsRun and len(result.skipped) == result.testsRun else 0)
