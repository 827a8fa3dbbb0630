#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target under tests/fuzz/corpus/: the
wire examples of each format and the edge cases around them, laid out as the
target reads its input. Run again after changing a seed; the files are
committed."""

import pathlib
import shutil
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def le16(value):
    return struct.pack("<H", value)


def le32(value):
    return struct.pack("<I", value & 0xFFFFFFFF)


def framed(chunks):
    """Chunks behind little-endian 16-bit lengths: how targets split input, and TCP framing."""
    return b"".join(le16(len(chunk)) + chunk for chunk in chunks)


# ---- parameter forms ----

def int_form(value):
    return b"I" + struct.pack("<i", value)


def float_form(value):
    return b"F" + struct.pack("<f", value)


def bool_form(value):
    return b"B" + bytes([value])


def string_form(text):
    return b"S" + text + b"\0"


def list_form(entries):
    """(name, value form) pairs as given, behind their count."""
    return bytes([len(entries) % 256]) + b"".join(name + b"\0" + form for name, form in entries)


VALUES = {
    "int_1": int_form(1),
    "int_minus_2": int_form(-2),
    "float_1": float_form(1.0),
    "float_nan": b"F" + le32(0x7FC00001),
    "bool_true": bool_form(1),
    "bool_false": bool_form(0),
    "bool_seven_reads_true": bool_form(7),
    "string_ab": string_form(b"ab"),
    "string_empty": string_form(b""),
    "none": b"N",
    "unknown_tag_X": b"X",
    "tag_above_127": b"\x80",
    "int_cut": int_form(1)[:4],
    "bool_cut": b"B",
    "string_unterminated": b"Sab",
}

EXAMPLE_LIST = list_form([(b"a", bool_form(0)), (b"x", int_form(5))])
LISTS = {
    "example_a_false_x_5": EXAMPLE_LIST,
    "empty": list_form([]),
    "duplicate_name_keeps_second": list_form([(b"a", int_form(1)), (b"a", int_form(2))]),
    "second_value_cut": EXAMPLE_LIST[:-2],
    "two_hundred_entries": list_form([(b"n%03d" % i, int_form(i)) for i in range(200)]),
    "added_empty_value": list_form([(b"a", int_form(1)), (b"m", b"N")]),
    "every_kind": list_form([(b"", string_form(b"")), (b"B", bool_form(1)), (b"a", float_form(0.5)),
                             (b"ab", string_form(b"text")), (b"b", b"X")]),
    "names_out_of_order": list_form([(b"x", int_form(5)), (b"a", bool_form(0))]),
    "name_unterminated": b"\x01abc",
}

# ---- WEFT messages ----


def message(command, payload):
    return bytes([1, ord(command)]) + le16(len(payload)) + payload


BOTH = 3
WEFT_EXAMPLES = {
    "subscribe_ab": message("S", b"ab\0"),
    "unsubscribe_ab": message("X", b"ab\0"),
    "trigger_t_int_5": message("T", b"t\0" + int_form(5)),
    "update_s_true": message("U", b"s\0" + bool_form(1)),
    "call_f_empty_list": message("F", b"f\0" + list_form([])),
    "subscribe_x": message("S", b"x\0"),
    "call_f_example_list": message("F", b"f\0" + EXAMPLE_LIST),
    "update_string": message("U", b"state\0" + string_form(b"running")),
}
WEFT_BAD = {
    "wrong_version": b"\x02" + message("S", b"ab\0")[1:],
    "header_too_short": b"\x01\x53\x00",
    "wrong_packet_size": message("S", b"0123456789")[:2] + le16(10) + b"01234567",
    "command_G": message("G", b"x\0"),
    "command_0x90": bytes([1, 0x90]) + le16(2) + b"x\0",
    "subscribe_empty_payload": message("S", b""),
    "trigger_without_value": message("T", b"t\0"),
    "call_with_cut_list": message("F", b"f\0" + EXAMPLE_LIST[:-2]),
}
def weft_input(flags, messages):
    return bytes([flags]) + framed(messages)


WEFT = {name: weft_input(BOTH, [example]) for name, example in {**WEFT_EXAMPLES, **WEFT_BAD}.items()}
WEFT["all_examples"] = weft_input(BOTH, list(WEFT_EXAMPLES.values()) + list(WEFT_BAD.values()))
WEFT["no_server_for_subscribe"] = weft_input(1, [WEFT_EXAMPLES["subscribe_ab"]])
WEFT["no_client_for_trigger"] = weft_input(2, [WEFT_EXAMPLES["trigger_t_int_5"]])
WEFT["neither_set"] = weft_input(0, list(WEFT_EXAMPLES.values()))
WEFT["largest_message"] = weft_input(BOTH, [message("S", b"n" * 1487 + b"\0")])
WEFT["longer_than_a_packet_ends_the_loop"] = weft_input(
    BOTH, [message("S", b"n" * 1488 + b"\0"), WEFT_EXAMPLES["subscribe_x"]])
WEFT["empty_message_skipped"] = weft_input(BOTH, [b"", WEFT_EXAMPLES["subscribe_x"]])

# ---- EUDP datagrams ----

COMMANDS = ["NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"]


def datagram(command, arg, payload=b""):
    return b"\x01" + command.encode() + le32(arg) + payload


def modes(letters):
    return struct.unpack("<I", letters.encode())[0]


EUDP_PACKETS = {"fresh_nop": datagram("NOP", 0)}
EUDP_PACKETS.update({"command_%d_%s" % (i, command): datagram(command, 0x01020304)
                     for i, command in enumerate(COMMANDS)})
EUDP_PACKETS.update({
    "cmd_hello": datagram("CMD", 7, b"hello"),
    "cmd_largest": datagram("CMD", 65534, bytes(range(256)) * 5 + bytes(212)),
    "mod_reliable_send": datagram("MOD", modes("RDDD")),
    "lower_case_ack": b"\x01ack" + le32(1),
    "seven_bytes": datagram("ACK", 1)[:7],
    "version_2": b"\x02ACK" + le32(1),
    "version_2_five_bytes": b"\x02ACK\x00",
})

# ---- TCP framing ----


def tcp_input(room, piece, stream):
    return le16(room) + bytes([piece]) + stream


SUBSCRIBE_X = message("S", b"x\0")
TCP = {
    "subscribe_x": tcp_input(1492, 0, framed([SUBSCRIBE_X])),
    "two_messages_and_an_empty_one": tcp_input(1492, 0, framed([SUBSCRIBE_X, b"", b"z"])),
    "exactly_the_room": tcp_input(4, 0, framed([b"abcd"])),
    "one_more_than_the_room": tcp_input(4, 0, framed([b"abcde", b"x"])),
    "body_in_pieces": tcp_input(1492, 1, framed([SUBSCRIBE_X, b"second"])),
    "closed_in_the_body": tcp_input(1492, 0, framed([b"ok"]) + le16(5) + b"\x01\x02"),
    "closed_in_the_prefix": tcp_input(1492, 0, framed([b"ok"]) + b"\x01"),
    "longest_prefix": tcp_input(0xFFFF, 3, b"\xff\xff" + b"cut"),
    "no_room": tcp_input(0, 0, framed([b"", b"x"])),
}

# ---- the EUDP receiver ----

REALTIME, RELIABLE = 0, 1


def receiver_input(flags, con_arg, datagrams):
    return bytes([flags]) + le32(con_arg) + framed(datagrams)


def data(seq, payload=b""):
    return datagram("CMD", seq, payload)


RECEIVER = {
    # 5 expected: 5 stored and acknowledged, 8 lost two (NAK 6), 6 stored.
    "reliable_gap_and_nak": receiver_input(RELIABLE, 4, [data(5, b"a"), data(8, b"b"),
                                                         data(6, b"c")]),
    # Window 10, 2 lost: 3 to 5 answered with NAK 2, then 2 to 5 in order,
    # then copies as duplicates.
    "reliable_loss_then_repeat": receiver_input(
        RELIABLE, 0, [data(1, b"1"), data(3, b"3"), data(4, b"4"), data(5, b"5"), data(2, b"2"),
                      data(3, b"3"), data(4, b"4"), data(5, b"5"), data(3, b"3"), data(5, b"5")]),
    "reliable_duplicate_after_wrap": receiver_input(RELIABLE, 65534, [data(65534, b"old"),
                                                                      data(0, b"new")]),
    "reliable_across_the_wrap": receiver_input(RELIABLE, 65532, [data(65533, b"a"),
                                                                 data(65534, b"b"),
                                                                 data(0, b"c"), data(1, b"d")]),
    "realtime_gap_then_late": receiver_input(REALTIME, 4, [data(8, b"x"), data(6, b"late"),
                                                           data(9, b"y")]),
    "keep_alives": receiver_input(REALTIME, 0, [data(1), data(2, b"p"), data(3)]),
    "keep_alives_reliable": receiver_input(RELIABLE, 0, [data(1), data(2, b"p"), data(3)]),
    "con_on_a_connection": receiver_input(REALTIME, 0, [datagram("CON", 0), data(1, b"p")]),
    "mode_requests": receiver_input(REALTIME, 0, [
        datagram("MOD", modes("RDDD")), datagram("MOD", modes("DDRD")), data(1, b"r"),
        datagram("MOD", modes("TDXD")), datagram("MOD", modes("QDDD")),
        datagram("MOD", modes("DDTD")), data(5, b"t")]),
    "window_zero": receiver_input(REALTIME, 0, [datagram("WIN", 0), data(1, b"w")]),
    "answers_and_acks": receiver_input(
        0b1110, 0, [datagram("ACK", 0), datagram("ACK", 2), datagram("NAK", 1),
                    datagram("NAK", 60000), datagram("NOP", 0), datagram("MAK", modes("RRDT")),
                    datagram("WAK", 3), data(1, b"after")]),
    "disconnect_after_data": receiver_input(RELIABLE, 0, [data(1, b"kept"), data(2, b"too"),
                                                          datagram("DIS", 3), data(3, b"never")]),
    "invalid_datagrams": receiver_input(REALTIME, 0, [
        b"", b"\x02CMD" + le32(1) + b"v2", datagram("CMD", 1)[:7], b"\x01XYZ" + le32(1),
        b"\x01cmd" + le32(1), data(1, b"valid")]),
    "longer_than_a_packet": receiver_input(REALTIME, 0, [data(1, bytes(1492)) + b"cut off",
                                                         data(2, b"next")]),
    "negative_numbers": receiver_input(REALTIME, 0x80000000, [data(0x80000001, b"n"),
                                                              data(0xFFFFFFFF, b"m"),
                                                              data(3, b"x")]),
}

TARGETS = {
    "parameter_value": VALUES,
    "parameter_list": LISTS,
    "weft_packet": WEFT,
    "eudp_packet": EUDP_PACKETS,
    "tcp_framing": TCP,
    "eudp_receiver": RECEIVER,
}


def main():
    for target, seeds in TARGETS.items():
        folder = CORPUS / target
        if folder.exists():
            shutil.rmtree(folder)
        folder.mkdir(parents=True)
        for name, content in seeds.items():
            (folder / name).write_bytes(content)
        print("%s: %d seeds" % (target, len(seeds)))


if __name__ == "__main__":
    main()
