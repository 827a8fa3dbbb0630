#!/usr/bin/env python3
"""Checks the Wireshark dissector (tools/wireshark/weft.lua) with tshark, on captures built from byte
vectors with text2pcap.

    python3 tests/wireshark/test_dissector.py [-v] [TestClass ...]
    python3 tests/wireshark/test_dissector.py --check-capture FILE [-o PREF:VALUE ...] [--filter DISPLAY_FILTER]

The second form checks a capture of any real run: no malformed packet, no Lua error, every UDP
datagram decoded as EUDP and every TCP payload as WEFT.
"""
import argparse
import atexit
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
DISSECTOR = os.environ.get("WEFT_DISSECTOR", os.path.join(ROOT, "tools", "wireshark", "weft.lua"))

TSHARK = shutil.which("tshark")
TEXT2PCAP = shutil.which("text2pcap")
MERGECAP = shutil.which("mergecap")
EDITCAP = shutil.which("editcap")
ERROR, WARN, NOTE = "8388608", "6291456", "4194304"  # expert severities
CLIENT, SERVER = "I", "O"  # text2pcap directions: client->server, server->client
# tshark runs with an empty home folder, so that an installed copy of the
# plugin or personal preferences cannot change what is tested.
TSHARK_HOME = tempfile.mkdtemp(prefix="weft-ws-home-")
atexit.register(shutil.rmtree, TSHARK_HOME, True)
TSHARK_ENV = {k: v for k, v in os.environ.items() if k != "XDG_CONFIG_HOME"}
TSHARK_ENV["HOME"] = TSHARK_HOME
BASE_FIELDS = ["frame.number", "_ws.col.Info", "_ws.expert.message", "_ws.expert.severity"]


# Byte-vector builders -----------------------------------------------------

def message(command, *items):
    payload = b"".join(items)
    return bytes([1, ord(command)]) + struct.pack("<H", len(payload)) + payload


def text(value):
    return value.encode() + b"\0"


def datagram(command, arg, payload=b""):
    arg_bytes = arg if isinstance(arg, bytes) else struct.pack("<I", arg)
    return b"\x01" + command.encode() + arg_bytes + payload


SUBSCRIBE = message("S", text("level"))
PLAY = message("F", text("play"), b"\x02" + text("clip") + b"S" + text("intro") + text("loop") + b"B\x01")
TRIGGER = message("T", text("tally"), b"B\x01")


def framed(*messages):
    return b"".join(struct.pack("<H", len(m)) + m for m in messages)


def value_list(*entries):
    return bytes([len(entries)]) + b"".join(text(name) + value for name, value in entries)


def flt(x):
    return b"F" + struct.pack("<f", x)


H = bytes.fromhex


# Captures and decoding ----------------------------------------------------

def write_capture(path, packets, header, ports, directional=False):
    """Writes packets (bytes, or (direction, bytes)) behind dummy -u/-T headers."""
    lines = []
    for packet in packets:
        direction, data = packet if directional else ("", packet)
        for offset in range(0, len(data), 16):
            prefix = direction + " " if direction and offset == 0 else ""
            row = " ".join("%02x" % b for b in data[offset:offset + 16])
            lines.append("%s%06x  %s" % (prefix, offset, row))
        lines.append("")
    dump = path + ".txt"
    with open(dump, "w") as f:
        f.write("\n".join(lines) + "\n")
    args = [TEXT2PCAP, "-q"] + (["-D"] if directional else []) + [header, "%d,%d" % ports, dump, path]
    subprocess.run(args, check=True, capture_output=True)
    return path


def run_tshark(path, args, prefs=()):
    cmd = [TSHARK, "-n", "-X", "lua_script:" + DISSECTOR, "-r", path]
    for pref in prefs:
        cmd += ["-o", pref]
    done = subprocess.run(cmd + list(args), capture_output=True, text=True, errors="replace", timeout=300,
                          env=TSHARK_ENV)
    if done.returncode != 0:
        raise AssertionError("tshark failed (%d): %s" % (done.returncode, done.stderr))
    return done.stdout, done.stderr


def decode(path, fields=(), prefs=(), extra=()):
    """Returns one dict per frame: field name -> list of string values."""
    args = ["-2", "-T", "json"] + [a for f in BASE_FIELDS + list(fields) for a in ("-e", f)] + list(extra)
    out, err = run_tshark(path, args, prefs)
    frames = [p["_source"]["layers"] for p in json.loads(out or "[]")]
    return frames, err


def experts(frame):
    return list(zip(frame.get("_ws.expert.severity", []), frame.get("_ws.expert.message", [])))


def capture_problems(frames, stderr=""):
    """What a capture of a correct run must not show."""
    problems = []
    if "Lua Error" in stderr:
        problems.append("tshark: " + stderr.strip())
    for frame in frames:
        number = frame["frame.number"][0]
        for severity, msg in experts(frame):
            if severity == ERROR or "Lua Error" in msg or "Exception" in msg:
                problems.append("frame %s: %s" % (number, msg))
        if "udp.length" in frame and "eudp.summary" not in frame:
            problems.append("frame %s: UDP datagram not decoded as EUDP" % number)
        tcp_payload = int(frame.get("tcp.len", ["0"])[0]) > 0
        if tcp_payload and "weft.summary" not in frame and "tcp.reassembled_in" not in frame:
            problems.append("frame %s: TCP payload not decoded as WEFT" % number)
    return problems


CHECK_FIELDS = ["udp.length", "tcp.len", "tcp.reassembled_in", "eudp.summary", "weft.summary"]


def check_capture(path, prefs=(), display_filter="udp or tcp"):
    frames, err = decode(path, CHECK_FIELDS, prefs, ["-Y", display_filter])
    return frames, capture_problems(frames, err)


@unittest.skipUnless(TSHARK and TEXT2PCAP, "tshark and text2pcap are needed (tools/wireshark/setup.sh)")
class DissectorCase(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="weft-ws-")
        self.addCleanup(shutil.rmtree, self.dir, True)

    def capture(self, packets, header="-T", ports=(40000, 7420), directional=False, name="c.pcapng"):
        return write_capture(os.path.join(self.dir, name), packets, header, ports, directional)

    def decode(self, path, fields=(), prefs=(), extra=()):
        frames, err = decode(path, fields, prefs, extra)
        for frame in frames:
            for _, msg in experts(frame):
                self.assertNotIn("Lua Error", msg, "frame %s" % frame["frame.number"])
        self.assertNotIn("Lua Error", err)
        return frames

    def assertField(self, frame, field, expected):
        self.assertEqual(frame.get(field, []), expected,
                         "frame %s (%s): %s" % (frame["frame.number"][0], frame["_ws.col.Info"], field))

    def assertFrame(self, frame, info, fields, wanted_experts):
        """Info and fields as given; each expert given (none when none is), malformed only for an error."""
        self.assertField(frame, "_ws.col.Info", [info])
        for field, expected in fields.items():
            self.assertField(frame, field, expected)
        found = experts(frame)
        if not wanted_experts:
            self.assertEqual(found, [], info)
        for severity, text in wanted_experts:
            self.assertTrue([m for s, m in found if s == severity and m.startswith(text)],
                            "%s: no expert %r at %s in %s" % (info, text, severity, found))
        self.assertEqual("_ws.malformed" in frame, any(s == ERROR for s, _ in wanted_experts), info)


# Tests ---------------------------------------------------------------------

class WeftMessageTest(DissectorCase):
    """Every wire example of messages and parameter forms, and malformed ones, one TCP segment each."""

    FLOATS = [(0.1, "0.1"), (3.14159265, "3.14159"), (100000.0, "100000"), (1234567.0, "1.23457e+06"),
              (0.00001, "1e-05")]
    CASES = [  # message bytes, Info, {field: values}, (expert severity, text) ...
        (H("01 53 03 00 61 62 00"), "WEFT S ab", {"weft.command": ["'S'"], "weft.command_name": ["subscribe"],
                                                    "weft.length": ["3"], "weft.name": ["ab"], "weft.version": ["1"],
                                                    "weft.tcp_length": ["7"]}),
        (H("01 58 03 00 61 62 00"), "WEFT X ab", {"weft.command_name": ["unsubscribe"]}),
        (H("01 54 07 00 74 00 49 05 00 00 00"), "WEFT T t = 5",
         {"weft.value.type": ["'I'"], "weft.value.int": ["5"], "weft.value.text": ["5"]}),
        (H("01 55 04 00 73 00 42 01"), "WEFT U s = ON", {"weft.value.type": ["'B'"], "weft.value.bool": ["1"]}),
        (H("01 46 03 00 66 00 00"), "WEFT F f()", {"weft.list.count": ["0"], "weft.name": ["f"]}),
        (message("T", text("v"), H("46 00 00 80 3F")), "WEFT T v = 1", {"weft.value.float": ["1"]}),
        (message("T", text("v"), H("42 07")), "WEFT T v = ON", {}),
        (message("U", text("v"), H("53 61 62 00")), "WEFT U v = ab", {"weft.value.string": ["ab"]}),
        (message("U", text("v"), H("4E")), "WEFT U v = INV", {"weft.value.type": ["'N'"]}),
        (message("F", text("f"), H("02 61 00 42 00 78 00 49 05 00 00 00")), "WEFT F f(a = OFF x = 5)",
         {"weft.list.count": ["2"], "weft.param.name": ["a", "x"], "weft.value.text": ["OFF", "5"]}),
        (PLAY, 'WEFT F play(clip = "intro" loop = ON)', {"weft.value.string": ["intro"]}),
    ] + [(message("U", text("f"), flt(x)), "WEFT U f = " + shown, {}) for x, shown in FLOATS] + [
        (H("02 53 03 00 61 62 00"), "WEFT [wrong version]", {}, (ERROR, "Wrong version: 2")),
        (H("01 53 00"), "WEFT [header too short]", {}, (ERROR, "Header too short: 3 bytes")),
        (H("01 53 05 00 61 62 00"), "WEFT S ab [wrong size]", {}, (ERROR, "Wrong size: the header counts 5")),
        (H("01 53 02 00 61 62"), "WEFT S ? [unterminated string]", {}, (ERROR, "Unterminated string")),
        (H("01 54 05 00 74 00 49 05 00"), "WEFT T t = ? [truncated value]", {},
         (ERROR, "Truncated value: integer needs 5 bytes, 3 left")),
        (message("F", text("f"), H("02 61 00 42 00 78 00 49 05")), "WEFT F f(a = OFF x = ?) [truncated value]", {},
         (ERROR, "Truncated value")),
        (message("F", text("f"), H("02 61 00 42 00")), "WEFT F f(a = OFF ?) [unterminated string]", {},
         (ERROR, "Unterminated string: entry 2 of 2")),
        (H("01 41 01 00 00"), "WEFT A [unknown command]", {}, (ERROR, "Unknown command A")),
        (message("T", text("v"), b"X"), "WEFT T v = INV", {"weft.value.type": ["'X'"]}, (WARN, "Unknown value type X")),
        (H("01 53 04 00 61 62 00 FF"), "WEFT S ab", {}, (WARN, "Bytes after the last item: 1")),
        (message("F", text("f"), value_list(("a", b"N"), ("a", b"B\x01"))), "WEFT F f(a = INV a = ON)", {},
         (NOTE, "Parameter name repeated")),
        (b"", "WEFT (empty)", {}, (NOTE, "Empty message")),
    ]
    FIELDS = ["weft.command", "weft.command_name", "weft.length", "weft.name", "weft.version", "weft.tcp_length",
              "weft.value.type", "weft.value.int", "weft.value.float", "weft.value.bool", "weft.value.string",
              "weft.value.text", "weft.list.count", "weft.param.name", "weft.summary", "_ws.malformed"]

    def test_messages_decode_field_by_field_and_malformed_ones_are_flagged(self):
        frames = self.decode(self.capture([framed(m) for m, *_ in self.CASES]), self.FIELDS)
        self.assertEqual(len(frames), len(self.CASES))
        for frame, (_, info, fields, *wanted) in zip(frames, self.CASES):
            self.assertFrame(frame, info, fields, wanted)
            self.assertField(frame, "weft.summary", [info])

    def test_copy_in_personal_plugins_folder_loads_without_options(self):
        home = os.path.join(self.dir, "home")
        plugins = os.path.join(home, ".local", "lib", "wireshark", "plugins")
        os.makedirs(plugins)
        shutil.copy(DISSECTOR, plugins)
        path = self.capture([framed(TRIGGER)])
        for script in ([], ["-X", "lua_script:" + DISSECTOR]):  # the second copy is told apart and ignored
            done = subprocess.run([TSHARK, "-n"] + script + ["-r", path, "-T", "fields", "-e", "weft.summary"],
                                  capture_output=True, text=True, env=dict(TSHARK_ENV, HOME=home))
            self.assertEqual(done.stdout.strip(), "WEFT T tally = ON", done.stderr)
        self.assertIn("already loaded", done.stderr)


class TcpFramingTest(DissectorCase):
    def test_split_messages_are_reassembled_and_two_in_one_segment_both_decoded(self):
        body = framed(PLAY)
        both = framed(H("01 53 03 00 61 62 00"), H("01 55 04 00 73 00 42 01"))
        frames = self.decode(self.capture([body[:9], body[9:], both]), ["tcp.reassembled_in", "weft.name"])
        self.assertField(frames[0], "tcp.reassembled_in", ["2"])
        self.assertField(frames[1], "_ws.col.Info", ['WEFT F play(clip = "intro" loop = ON)'])
        self.assertField(frames[2], "_ws.col.Info", ["WEFT S ab, WEFT U s = ON"])
        self.assertField(frames[2], "weft.name", ["ab", "s"])

    def test_heuristic_finds_streams_written_prefix_first_both_ways_and_leaves_others_alone(self):
        trigger = framed(TRIGGER)
        packets = [(CLIENT, framed(SUBSCRIBE)[:2]), (CLIENT, SUBSCRIBE),
                   (SERVER, trigger[:2]), (SERVER, trigger[2:]),
                   (CLIENT, framed(H("01 41 01 00 00")))]  # claimed through the conversation
        others = [H("05 00"), H("02 53 01 00 00"), H("0700 0153 0900 61 62 00"), b"\xff\xff hello"]
        frames = self.decode(self.capture(packets, ports=(40000, 7777), directional=True), ["weft.summary"])
        self.assertEqual([f.get("weft.summary") for f in frames],
                         [None, ["WEFT S level"], None, ["WEFT T tally = ON"], ["WEFT A [unknown command]"]])
        frames = self.decode(self.capture(others, ports=(40001, 7777), name="o.pcapng"), ["weft.summary"])
        self.assertEqual([f.get("weft.summary") for f in frames], [None] * len(others))

    def test_port_preference_and_decode_as_select_other_ports(self):
        path = self.capture([framed(H("02 53 03 00 61 62 00"))], ports=(40000, 7777))
        self.assertNotIn("weft.summary", self.decode(path, ["weft.summary"])[0])
        by_pref = self.decode(path, ["weft.summary"], prefs=["weft.tcp_port:7777"])[0]
        self.assertField(by_pref, "weft.summary", ["WEFT [wrong version]"])
        decode_as = self.decode(path, ["weft.summary"], extra=["-d", "tcp.port==7777,weft"])[0]
        self.assertField(decode_as, "weft.summary", ["WEFT [wrong version]"])
        self.assertNotIn("weft.summary", self.decode(self.capture([framed(SUBSCRIBE)[2:]]),
                                                    ["weft.summary"], prefs=["weft.tcp_port:0"])[0])


class MalformedTest(DissectorCase):
    def test_capture_check_reports_malformed_and_undecoded_packets(self):
        udp = self.capture([datagram("ACK", 1), H("01 61 63 6B 00 00 00 00")], "-u", (40001, 41000), name="u")
        other = self.capture([b"hello"], "-u", (40002, 41001), name="o")
        tcp = self.capture([framed(SUBSCRIBE), framed(H("01 53 05 00 61 62 00"))], name="t")
        merged = os.path.join(self.dir, "m.pcapng")
        subprocess.run([MERGECAP, "-a", "-w", merged, udp, other, tcp], check=True)
        frames, problems = check_capture(merged)
        self.assertEqual(len(frames), 5)
        self.assertEqual(problems, ['frame 2: Unknown command "ack": the receiver drops the datagram',
                                    "frame 3: UDP datagram not decoded as EUDP",
                                    "frame 5: Wrong size: the header counts 5 payload bytes, the message has 3"])
        self.assertEqual(check_capture(merged, display_filter="frame.number == 1 or frame.number == 4")[1], [])


class EudpTest(DissectorCase):
    CASES = [  # datagram, Info, {field: values}, (expert severity, text) ...
        (H("01 4E 4F 50 00 00 00 00"), "EUDP NOP", {"eudp.command": ["NOP"], "eudp.arg": ["0"]}),
        (datagram("ACK", 17), "EUDP ACK seq=17", {"eudp.seq": ["17"]}),
        (datagram("NAK", 3), "EUDP NAK seq=3", {"eudp.command_desc": ["negative acknowledgement"]}),
        (datagram("CMD", 17, H("01 54 08 00 74 61 6C 6C 79 00 42 01")), "EUDP CMD seq=17 -> WEFT T tally = ON",
         {"eudp.payload_length": ["12"], "weft.name": ["tally"], "weft.summary": ["WEFT T tally = ON"]}),
        (datagram("CMD", 18), "EUDP CMD seq=18 keep-alive", {"eudp.payload_length": ["0"]}),
        (H("01 4D 4F 44 52 44 44 44"), "EUDP MOD send=R recv=D",
         {"eudp.modes": ["RDDD"], "eudp.mode.send_asked": ["'R'"], "eudp.mode.recv": ["'D'"]}),
        (datagram("MAK", b"RRDT"), "EUDP MAK send=R recv=T (asked send=R recv=D)", {"eudp.mode.send": ["'R'"]}),
        (datagram("WIN", 25), "EUDP WIN size=25", {"eudp.window": ["25"]}),
        (H("01 61 63 6B 00 00 00 00"), "EUDP ack [unknown command]", {}, (ERROR, 'Unknown command "ack"')),
        (H("01 41 43 4B 00 00 00"), "EUDP [header too short]", {}, (ERROR, "Header too short: 7 bytes")),
        (datagram("MOD", b"ZDDD"), "EUDP MOD send=Z recv=D", {}, (WARN, "Unknown mode byte Z")),
        (datagram("DIS", 65535), "EUDP DIS seq=65535", {}, (WARN, "Sequence number out of range: 65535")),
        (datagram("ACK", 1, b"xy"), "EUDP ACK seq=1", {}, (WARN, "Payload on a control packet: 2 bytes")),
        (datagram("CMD", 4, H("01 53 09 00 61 00")), "EUDP CMD seq=4 -> WEFT S a [wrong size]", {},
         (ERROR, "Wrong size")),
        (datagram("CMD", 5, b"\x01" + b"\x00" * 1499), "EUDP CMD seq=5 -> WEFT 0x00 [wrong size, unknown command]",
         {}, (WARN, "Datagram longer than 1500 bytes: 1508"), (ERROR, "Wrong size")),
    ]
    FIELDS = ["eudp.command", "eudp.command_desc", "eudp.arg", "eudp.seq", "eudp.modes", "eudp.mode.send_asked",
              "eudp.mode.send", "eudp.mode.recv_asked", "eudp.mode.recv", "eudp.window", "eudp.payload_length",
              "eudp.summary", "weft.name", "weft.summary", "_ws.malformed"]

    def test_every_command_and_argument_form_decodes_and_bad_datagrams_are_flagged(self):
        frames = self.decode(self.capture([d for d, *_ in self.CASES], "-u"), self.FIELDS)
        self.assertEqual(len(frames), len(self.CASES))
        for frame, (_, info, fields, *wanted) in zip(frames, self.CASES):
            self.assertFrame(frame, info, fields, wanted)
            self.assertField(frame, "eudp.summary", [info])

    def test_conversation_on_accepted_port_is_found_without_preferences(self):
        first = self.capture([datagram("CON", 0)], "-u", (40001, 7420), name="a.pcapng")
        accepted = self.capture([(SERVER, datagram("ACK", 0)), (CLIENT, datagram("CMD", 1, SUBSCRIBE)),
                                 (SERVER, datagram("QQQ", 1)), (CLIENT, b"\x01")], "-u", (40001, 41234),
                                directional=True, name="b.pcapng")
        merged = os.path.join(self.dir, "m.pcapng")
        subprocess.run([MERGECAP, "-a", "-w", merged, first, accepted], check=True)
        frames = self.decode(merged, ["eudp.summary", "udp.srcport"], prefs=["eudp.udp_port:7420"])
        self.assertEqual([f.get("eudp.summary") for f in frames],
                         [["EUDP CON seq=0"], ["EUDP ACK seq=0"], ["EUDP CMD seq=1 -> WEFT S level"],
                          ["EUDP QQQ [unknown command]"], ["EUDP [header too short]"]])
        self.assertField(frames[1], "udp.srcport", ["41234"])
        no_port = self.decode(merged, ["eudp.summary"], prefs=["eudp.udp_port:0"])
        self.assertEqual(no_port[0]["eudp.summary"], ["EUDP CON seq=0"])


class FuzzTest(DissectorCase):
    """Random and mutated byte vectors never raise a Lua error."""

    SEED = int(os.environ.get("WEFT_FUZZ_SEED", "20241123"))
    SEEDS = [m for m, *_ in WeftMessageTest.CASES if m]

    def random_weft(self, rng):
        if rng.random() < 0.2:
            return bytes(rng.randrange(256) for _ in range(rng.randrange(1, 40)))
        data = bytearray(rng.choice(self.SEEDS))
        for _ in range(rng.randint(1, 4)):
            action, at = rng.randrange(4), rng.randrange(len(data) + 1)
            if action == 0 and at < len(data):
                data[at] = rng.randrange(256)
            elif action == 1:
                del data[at:]
            elif action == 2:
                data.insert(at, rng.choice([0, 1, 0x49, 0x53, 0x42, 0x46, 0xFF]))
            else:
                data[2:4] = struct.pack("<H", rng.randrange(0, 40))
        return bytes(data)

    def test_random_vectors_decode_without_lua_errors(self):
        rng = random.Random(self.SEED)
        names = ["NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK", "cmd", "ZZZ"]
        datagrams = [datagram(rng.choice(names), bytes(rng.choice(b"TRDX\x00\xff") for _ in range(4)),
                              self.random_weft(rng) if rng.random() < 0.5 else b"") for _ in range(200)]
        datagrams += [bytes(rng.randrange(256) for _ in range(rng.randrange(1, 24))) for _ in range(100)]
        messages = [m for m in (self.random_weft(rng) for _ in range(300)) if m]

        udp = self.decode(self.capture(datagrams, "-u", name="u.pcapng"), ["eudp.summary"])
        self.assertEqual(len(udp), len(datagrams))
        self.assertTrue(all("eudp.summary" in f for f in udp), "seed %d" % self.SEED)
        tcp = self.decode(self.capture([framed(m) for m in messages], name="t.pcapng"), ["weft.summary"])
        self.assertEqual(sum(len(f.get("weft.summary", [])) for f in tcp), len(messages), "seed %d" % self.SEED)
        for name in ("u.pcapng", "t.pcapng"):  # as if captured with a short snapshot length
            subprocess.run([EDITCAP, "-s", "60", os.path.join(self.dir, name), os.path.join(self.dir, "cut-" + name)],
                           check=True)
        for name in ("u.pcapng", "t.pcapng", "cut-u.pcapng", "cut-t.pcapng"):
            out, err = run_tshark(os.path.join(self.dir, name), ["-V", "-2"])
            self.assertNotIn("Lua Error", out + err, "%s, seed %d" % (name, self.SEED))
            self.assertNotIn("[Malformed Packet", out, "%s, seed %d" % (name, self.SEED))


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--check-capture")
    parser.add_argument("-o", dest="prefs", action="append", default=[])
    parser.add_argument("--filter", default="udp or tcp")
    args, rest = parser.parse_known_args()
    if args.check_capture:
        try:
            frames, problems = check_capture(args.check_capture, args.prefs, args.filter)
        except AssertionError as error:  # tshark refused the capture, a preference or the filter
            print(error, file=sys.stderr)
            return 2
        for problem in problems:
            print(problem)
        print("%d frames checked, %d problems" % (len(frames), len(problems)))
        return 1 if problems else 0
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False).result
    if not result.wasSuccessful():
        return 1
    # Lets ctest report a run whose every test skipped as skipped.
    return 77 if result.testsRun and len(result.skipped) == result.testsRun else 0


if __name__ == "__main__":
    sys.exit(main())
