"""Values and names at the Python surface: what travels keeps its type and
value, and what cannot travel raises before anything is sent."""

import struct

import pytest
import weft
from conftest import expect, take


def f32(number):
    return struct.unpack("<f", struct.pack("<f", number))[0]


# (sent, received): floats travel as 32-bit floats, text as UTF-8 with
# undecodable bytes carried as lone surrogates.
VALUES = [(0, 0), (-2**31, -2**31), (2**31 - 1, 2**31 - 1), (True, True), (False, False),
          (0.1, f32(0.1)), (-3.4e38, f32(-3.4e38)), (float("inf"), float("inf")),
          ("", ""), ("ünï ✓", "ünï ✓"), ("\udcff", "\udcff"), (None, None)]


def typed(values):
    return [(type(value), value) for value in values]


def test_values_keep_type_and_value_both_ways_and_the_largest_message_arrives_whole(pair):
    server, client, conn = pair
    client.subscribe("v")
    expect(server, "subscribe", "v")
    for sent, _ in VALUES:
        server.update("v", sent)
        conn.trigger("v", sent)
    arrived = [event.value for event in take(client, 2 * len(VALUES))]
    assert typed(arrived) == typed(received for _, received in VALUES for _ in (0, 1))

    client.call("f", {f"p{i}": sent for i, (sent, _) in enumerate(VALUES)}, p0=7)
    params = expect(server, "call", "f").value
    assert typed(params[f"p{i}"] for i in range(1, len(VALUES))) == typed(
        received for _, received in VALUES[1:])
    assert params["p0"] == 7

    # One message carries 1488 bytes of name and value: a name of 1487 and
    # its NUL; "u" and its NUL with a string of 1484 (tag, text, NUL).
    client.subscribe("n" * 1487)
    assert expect(server, "subscribe").name == "n" * 1487
    server.update("u", "s" * 1484, broadcast=True)
    assert expect(client, "update", "u").value == "s" * 1484


REFUSED = [
    ("int over 32 bits", lambda c: c.call("f", v=2**31), OverflowError),
    ("int under 32 bits", lambda c: c.call("f", v=-2**31 - 1), OverflowError),
    ("float over 32 bits", lambda c: c.call("f", v=3.5e38), OverflowError),
    ("NUL in a string", lambda c: c.call("f", v="a\0b"), ValueError),
    ("NUL in a name", lambda c: c.subscribe("a\0b"), ValueError),
    ("bytes", lambda c: c.call("f", v=b"x"), TypeError),
    ("a name not str", lambda c: c.call("f", {1: 2}), TypeError),
    ("256 parameters", lambda c: c.call("f", {f"p{i}": i for i in range(256)}), ValueError),
    ("name too long", lambda c: c.subscribe("n" * 1488), ValueError),
    ("call too long", lambda c: c.call("f", v="s" * 1482), ValueError),
]


@pytest.mark.parametrize("transport", ["tcp"])
@pytest.mark.parametrize("send, error", [row[1:] for row in REFUSED], ids=[r[0] for r in REFUSED])
def test_what_cannot_travel_raises_and_sends_nothing(pair, send, error):
    server, client, conn = pair
    with pytest.raises(error):
        send(client)
    with pytest.raises(ValueError):
        conn.update("u", "s" * 1485)
    client.call("after")
    server.trigger("after", broadcast=True)
    assert take(server, 1)[0].name == "after"
    assert take(client, 1)[0].name == "after"
