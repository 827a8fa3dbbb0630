#!/usr/bin/env python3
"""Sends real WEFT-over-TCP and EUDP traffic on loopback for a live capture.

Usage: live_sender.py TCP_PORT TCP_CLIENT_PORT UDP_LISTEN_PORT UDP_ACCEPT_PORT UDP_CLIENT_PORT

Binds every socket, prints "bound" (exit code 3 if a port is taken), then sends once a line comes on
standard input, so that the capture can start in between. TCP messages go out as the library writes
them: prefix and message in two writes, no-delay set. EUDP answers come from a port other than the
listening one, as from an accepting side; the last datagram is a DIS.
"""
import socket
import struct
import sys


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
UPDATE = message("U", text("level"), b"F" + struct.pack("<f", 0.5))

# What a capture of this run must show, in order.
EXPECTED_WEFT = [
    "WEFT S level",
    'WEFT F play(clip = "intro" loop = ON)',
    "WEFT S ab",
    "WEFT X ab",
    "WEFT T tally = ON",
    "WEFT U level = 0.5",
    "WEFT S level",
    "WEFT T tally = ON",
    'WEFT F play(clip = "intro" loop = ON)',
]
EXPECTED_EUDP = [
    "EUDP CON seq=0",
    "EUDP ACK seq=0",
    "EUDP CMD seq=1 -> WEFT S level",
    "EUDP CMD seq=1 -> WEFT T tally = ON",
    "EUDP MOD send=R recv=D",
    "EUDP MAK send=R recv=T (asked send=R recv=D)",
    "EUDP WIN size=25",
    "EUDP WAK size=25",
    "EUDP CMD seq=2 keep-alive",
    "EUDP NOP",
    "EUDP CMD seq=3 -> WEFT F play(clip = \"intro\" loop = ON)",
    "EUDP ACK seq=3",
    "EUDP DIS seq=4",
]


def bind(kind, port):
    sock = socket.socket(socket.AF_INET, kind)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("127.0.0.1", port))
    return sock


def send_framed(sock, msg):
    sock.sendall(struct.pack("<H", len(msg)))
    sock.sendall(msg)


def read_to_end(sock):
    while sock.recv(4096):
        pass


def run_tcp(server, client, port):
    server.listen(1)
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    client.connect(("127.0.0.1", port))
    conn, _ = server.accept()
    conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    send_framed(client, SUBSCRIBE)
    send_framed(client, PLAY)
    both = message("S", text("ab")) + message("X", text("ab"))
    client.sendall(struct.pack("<H", 7) + both[:7] + struct.pack("<H", 7) + both[7:])
    client.shutdown(socket.SHUT_WR)
    read_to_end(conn)
    send_framed(conn, TRIGGER)
    send_framed(conn, UPDATE)
    conn.close()
    read_to_end(client)
    client.close()
    server.close()


def run_eudp(listener, accepted, client, ports):
    listen_port, accept_port, client_port = ports

    def exchange(sender, to_port, receiver, data):
        sender.sendto(data, ("127.0.0.1", to_port))
        receiver.recvfrom(2048)

    exchange(client, listen_port, listener, datagram("CON", 0))
    exchange(accepted, client_port, client, datagram("ACK", 0))
    exchange(client, accept_port, accepted, datagram("CMD", 1, SUBSCRIBE))
    exchange(accepted, client_port, client, datagram("CMD", 1, TRIGGER))
    exchange(client, accept_port, accepted, datagram("MOD", b"RDDD"))
    exchange(accepted, client_port, client, datagram("MAK", b"RRDT"))
    exchange(client, accept_port, accepted, datagram("WIN", 25))
    exchange(accepted, client_port, client, datagram("WAK", 25))
    exchange(client, accept_port, accepted, datagram("CMD", 2))
    exchange(accepted, client_port, client, datagram("NOP", 0))
    exchange(client, accept_port, accepted, datagram("CMD", 3, PLAY))
    exchange(accepted, client_port, client, datagram("ACK", 3))
    exchange(client, accept_port, accepted, datagram("DIS", 4))


def main(argv):
    tcp_port, tcp_client_port, listen_port, accept_port, client_port = (int(a) for a in argv[1:6])
    try:
        server = bind(socket.SOCK_STREAM, tcp_port)
        client = bind(socket.SOCK_STREAM, tcp_client_port)
        udp = [bind(socket.SOCK_DGRAM, p) for p in (listen_port, accept_port, client_port)]
    except OSError as error:
        print("port taken: %s" % error, flush=True)
        return 3
    for sock in udp:
        sock.settimeout(10)
    print("bound", flush=True)
    sys.stdin.readline()
    run_tcp(server, client, tcp_port)
    run_eudp(udp[0], udp[1], udp[2], (listen_port, accept_port, client_port))
    print("sent", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
