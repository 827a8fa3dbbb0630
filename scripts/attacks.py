#!/usr/bin/env python3
"""Attacks on a real `weft serve`, one row of results each.

Every row starts a fresh `weft serve` (TCP or EUDP, on loopback), connects a
well-behaved `weft connect` to it, then attacks the server with raw sockets
while an update of the item "probe" is pushed from the server's console every
100 ms. Each row prints one line: the server's resident memory and thread
count before the attack, at the peak and 2 s after it ends (from
/proc/PID/status), what the well-behaved client saw (probes lost, the largest
delay from the console to the client) and what the attack itself measured.

    scripts/attacks.py                          # every row, build/normal
    scripts/attacks.py --weft build/asan/tools/weft --rows memory
    scripts/attacks.py --rows con-flood,strangers --json-out results.json
    scripts/attacks.py --list

Only the standard library; Linux only (it reads /proc). Every process the
script starts is ended before it exits, whatever happens. The only limits it
changes are its own soft open-file limit and that of the one server a row
starts under 1,024 files; never the machine's or the shell's. docs/security.md
has the results and what they mean.
"""

import argparse
import atexit
import json
import os
import random
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# The library's bounds, in seconds: what the rows hold the server to.
SEND_BOUND = 5.0  # a send waits at most this long for a peer that takes nothing
TCP_MESSAGE_LIMIT = 10.0  # a TCP message must arrive whole this soon after its first byte
DEAD_PEER = 10.5  # an EUDP peer silent this long (keep-alive at 0.5 s, then 10 s) is dead
HALF_OPEN_LIMIT = 64
# The targets of the issue for floods.
FLOOD_RSS_MB = 200
FLOOD_THREADS = 300
RSS_BACK_MB = 20
# A row that shows growth without bound stops there, to spare a shared machine.
THREAD_GUARD = 2000
# Slack on top of a bound for scheduling on a busy machine.
SLACK = 1.0

PROBE_INTERVAL = 0.1
# Between the connects of rows that are not about connect storms: the TCP
# listener's queue holds 6, and a faster burst waits for SYN retries (1 s).
CONNECT_GAP = 0.003
LOOPBACK = "127.0.0.1"

# ---------------------------------------------------------------------------
# Processes: every child is registered, and all are ended on any exit.

_children = []
_children_lock = threading.Lock()


def spawn(args, **kwargs):
    process = subprocess.Popen(args, **kwargs)
    with _children_lock:
        _children.append(process)
    return process


def end_process(process, grace=3.0):
    """Ends one child by its pid: politely first, then for good."""
    if process.poll() is None:
        try:
            process.terminate()
            process.wait(grace)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(5)
        except ProcessLookupError:
            pass
    return process.returncode


def end_all_children():
    with _children_lock:
        children = list(_children)
    for process in children:
        if process.poll() is None:
            try:
                process.kill()
                process.wait(5)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass


def _on_signal(number, _frame):
    end_all_children()
    sys.exit(128 + number)


atexit.register(end_all_children)
for _number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
    signal.signal(_number, _on_signal)

# ---------------------------------------------------------------------------
# /proc readings.


def proc_status(pid):
    """Resident memory in MB and thread count, or None when the process is gone."""
    try:
        with open(f"/proc/{pid}/status") as status:
            fields = dict(line.split(":", 1) for line in status if ":" in line)
        return int(fields["VmRSS"].split()[0]) / 1024.0, int(fields["Threads"])
    except (OSError, KeyError, ValueError):
        return None


def fd_count(pid):
    try:
        return len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return 0


def socket_inodes(pid):
    inodes = set()
    try:
        for fd in os.listdir(f"/proc/{pid}/fd"):
            try:
                target = os.readlink(f"/proc/{pid}/fd/{fd}")
            except OSError:
                continue
            if target.startswith("socket:["):
                inodes.add(target[8:-1])
    except OSError:
        pass
    return inodes


def udp_ports(pid):
    """Local ports of the process's UDP sockets."""
    mine = socket_inodes(pid)
    ports = set()
    for table in ("/proc/net/udp", "/proc/net/udp6"):
        try:
            with open(table) as lines:
                next(lines)
                for line in lines:
                    cols = line.split()
                    if cols[9] in mine:
                        ports.add(int(cols[1].split(":")[1], 16))
        except OSError:
            pass
    return ports


def tcp_listen_addresses(pid):
    """(address, port) of the process's listening TCP sockets."""
    mine = socket_inodes(pid)
    found = []
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as lines:
                next(lines)
                for line in lines:
                    cols = line.split()
                    if cols[9] in mine and cols[3] == "0A":
                        address, port = cols[1].split(":")
                        if len(address) == 8:
                            text = socket.inet_ntoa(struct.pack("<I", int(address, 16)))
                        else:
                            text = address
                        found.append((text, int(port, 16)))
        except OSError:
            pass
    return found


def udp_bound_addresses(pid, port):
    found = []
    mine = socket_inodes(pid)
    try:
        with open("/proc/net/udp") as lines:
            next(lines)
            for line in lines:
                cols = line.split()
                address, local = cols[1].split(":")
                if cols[9] in mine and int(local, 16) == port:
                    found.append(socket.inet_ntoa(struct.pack("<I", int(address, 16))))
    except OSError:
        pass
    return found


# ---------------------------------------------------------------------------
# Wire formats, built by hand.


def weft_message(command, payload):
    """One WEFT message: version 1, command letter, little-endian payload length."""
    return struct.pack("<BBH", 1, ord(command), len(payload)) + payload


def weft_subscribe(name):
    return weft_message("S", name.encode() + b"\0")


def weft_unsubscribe(name):
    return weft_message("X", name.encode() + b"\0")


def tcp_frame(message):
    return struct.pack("<H", len(message)) + message


def parse_weft(body):
    """(command letter, name, value) of a trigger or update; None when it is not one."""
    if len(body) < 4 or body[0] != 1:
        return None
    command = chr(body[1])
    end = body.find(b"\0", 4)
    if end < 0:
        return None
    name = body[4:end].decode(errors="replace")
    rest = body[end + 1:]
    value = None
    if rest[:1] == b"I" and len(rest) >= 5:
        value = struct.unpack_from("<i", rest, 1)[0]
    elif rest[:1] == b"S":
        value = rest[1:rest.find(b"\0", 1)].decode(errors="replace")
    return command, name, value


def eudp_packet(command, arg, payload=b""):
    """One EUDP datagram: version 1, three command letters, little-endian 32-bit arg."""
    return struct.pack("<B3sI", 1, command, arg & 0xFFFFFFFF) + payload


def parse_eudp(data):
    if len(data) < 8 or data[0] != 1:
        return None
    return data[1:4], struct.unpack_from("<I", data, 4)[0], data[8:]


def distance(a, b):
    """How far number a lies after b, in the cyclic order of 65535 numbers."""
    d = a - b
    if d < -32767:
        d += 65535
    elif d > 32767:
        d -= 65535
    return d


def mode_arg(letters):
    return int.from_bytes(letters.encode(), "little")


# ---------------------------------------------------------------------------
# The server under attack.


class Server:
    """A `weft serve --json` child: its events, its console, its /proc numbers."""

    def __init__(self, weft, transport, workdir, extra=(), nofile=None, host=LOOPBACK, env=None):
        args = [weft, "serve", "-t", transport, "--port", "0", "--json"]
        if host is not None:
            args += ["--host", host]
        args += list(extra)
        self.transport = transport
        self.errpath = os.path.join(workdir, f"serve-{transport}-{time.monotonic_ns()}.err")
        self.errfile = open(self.errpath, "wb")

        def limit_files():
            # Only the child's own limit: the machine and this shell keep theirs.
            resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))

        self.proc = spawn(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=self.errfile, preexec_fn=limit_files if nofile else None,
                          env=env)
        self.pid = self.proc.pid
        self.stdin_fd = self.proc.stdin.fileno()
        self.stdin_closed = False
        os.set_blocking(self.stdin_fd, False)
        self.events = []
        self.refused_subscriptions = 0
        self.cond = threading.Condition()
        self.write_lock = threading.Lock()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        listening = self.wait_event(lambda e: e.get("event") == "listening", 10)
        if listening is None:
            end_process(self.proc)
            raise RuntimeError(f"weft serve did not start: {self.stderr_tail()}")
        self.port = listening["port"]
        self.host = listening["host"]
        self.listening = listening

    def _read(self):
        for line in self.proc.stdout:
            # 100,000 refused subscriptions of 1,400-byte names: counted, not kept.
            if len(line) > 512 and b'"refused":true' in line and line.startswith(
                    b'{"event":"subscribe"'):
                with self.cond:
                    self.refused_subscriptions += 1
                continue
            try:
                event = json.loads(line)
            except ValueError:
                continue
            for key, value in list(event.items()):
                if isinstance(value, str) and len(value) > 80:
                    event[key] = value[:80]
            event["_seen"] = time.time()
            with self.cond:
                self.events.append(event)
                self.cond.notify_all()

    def send(self, line, timeout=30.0):
        """Writes one console line; False when the server is gone or its console
        took nothing for `timeout` seconds (a blocked console fills the pipe)."""
        data = (line + "\n").encode()
        deadline = time.monotonic() + timeout
        with self.write_lock:
            while data:
                left = deadline - time.monotonic()
                if left <= 0 or self.stdin_closed:
                    return False
                _, writable, _ = select.select([], [self.stdin_fd], [], min(left, 0.5))
                if not writable:
                    continue
                try:
                    written = os.write(self.stdin_fd, data)
                except BlockingIOError:
                    continue
                except OSError:
                    return False
                data = data[written:]
            return True

    def wait_event(self, predicate, timeout, start=0):
        deadline = time.monotonic() + timeout
        with self.cond:
            index = start
            while True:
                while index < len(self.events):
                    if predicate(self.events[index]):
                        return self.events[index]
                    index += 1
                left = deadline - time.monotonic()
                if left <= 0 or (self.proc.poll() is not None and not self.reader.is_alive()):
                    return None
                self.cond.wait(min(left, 0.2))

    def count(self, predicate):
        with self.cond:
            return sum(1 for event in self.events if predicate(event))

    def client_of(self, local_port, timeout=5):
        """The server's client number for a peer connected from `local_port`."""
        event = self.wait_event(lambda e: e.get("event") == "connected"
                                and e.get("peer", "").endswith(f":{local_port}"), timeout)
        return event["client"] if event else None

    def wait_disconnected(self, client, timeout):
        return self.wait_event(lambda e: e.get("event") == "disconnected"
                               and e.get("client") == client, timeout)

    def open_sessions(self):
        with self.cond:
            up = {e["client"] for e in self.events if e.get("event") == "connected"}
            down = {e["client"] for e in self.events if e.get("event") == "disconnected"}
        return len(up - down)

    def sample(self):
        return proc_status(self.pid)

    def alive(self):
        return self.proc.poll() is None

    def stderr_tail(self, lines=5):
        try:
            with open(self.errpath, "rb") as err:
                return b" | ".join(err.read().splitlines()[-lines:]).decode(errors="replace")
        except OSError:
            return ""

    def log_lines(self):
        try:
            with open(self.errpath, "rb") as err:
                return sum(1 for _ in err)
        except OSError:
            return 0

    def sanitizer_report(self):
        try:
            with open(self.errpath, "rb") as err:
                for line in err:
                    if (b"ERROR: AddressSanitizer" in line or b"ERROR: LeakSanitizer" in line
                            or b"runtime error:" in line):
                        return line.decode(errors="replace").strip()
        except OSError:
            pass
        return None

    def stop(self):
        """Quits through the console (so a sanitizer build checks for leaks); the
        exit code, or None when the server had to be killed."""
        code = None
        if self.alive():
            self.send("quit", timeout=5)
            with self.write_lock:
                self.stdin_closed = True
                try:
                    self.proc.stdin.close()
                except OSError:
                    pass
            try:
                code = self.proc.wait(20)
            except subprocess.TimeoutExpired:
                end_process(self.proc)
        else:
            code = self.proc.returncode
        self.reader.join(5)
        self.errfile.close()
        return code


class Client:
    """A well-behaved `weft connect --json` subscribed to one item; records what
    arrives and when (the client's own clock, the same as ours)."""

    def __init__(self, weft, port, transport, workdir, name="probe", reliable=True):
        args = [weft, "connect", f"{LOOPBACK}:{port}", "-t", transport, "-s", name, "--json"]
        if transport == "eudp" and reliable:
            args += ["--send-mode", "reliable"]
        self.errfile = open(os.path.join(workdir, f"connect-{time.monotonic_ns()}.err"), "wb")
        self.proc = spawn(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errfile)
        self.name = name
        self.values = []  # (value, client time)
        self.events = []
        self.cond = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.proc.stdout:
            try:
                event = json.loads(line)
            except ValueError:
                continue
            with self.cond:
                self.events.append(event)
                if event.get("event") == "update" and event.get("name") == self.name:
                    self.values.append((event.get("value"), event.get("time")))
                self.cond.notify_all()

    def local_port(self, timeout=10):
        event = self.wait(lambda e: e.get("event") == "connected", timeout)
        return event.get("local_port") if event else None

    def wait(self, predicate, timeout):
        deadline = time.monotonic() + timeout
        with self.cond:
            index = 0
            while True:
                while index < len(self.events):
                    if predicate(self.events[index]):
                        return self.events[index]
                    index += 1
                left = deadline - time.monotonic()
                if left <= 0 or not self.reader.is_alive():
                    return None
                self.cond.wait(min(left, 0.2))

    def wait_value(self, value, timeout):
        return self.wait(lambda e: e.get("event") == "update" and e.get("name") == self.name
                         and e.get("value") == value, timeout)

    def dropped(self):
        with self.cond:
            return any(e.get("event") == "disconnected" for e in self.events)

    def stop(self):
        try:
            self.proc.stdin.close()
        except OSError:
            pass
        try:
            self.proc.wait(3)
        except subprocess.TimeoutExpired:
            end_process(self.proc)
        self.errfile.close()


def try_connect(weft, port, transport, timeout=10.0):
    """A fresh `weft connect` that subscribes to "probe" and waits for its
    value: (succeeded, seconds taken, its last words when it failed)."""
    started = time.monotonic()
    process = spawn([weft, "connect", f"{LOOPBACK}:{port}", "-t", transport, "-s", "probe",
                     "-n", "1", "--timeout", f"{timeout}s", "--json", "-vv"],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                    stderr=subprocess.PIPE)
    try:
        out, err = process.communicate(timeout=timeout + 5)
    except subprocess.TimeoutExpired:
        end_process(process)
        out, err = b"", b"(killed)"
    seconds = time.monotonic() - started
    if process.returncode == 0:
        return True, seconds, ""
    events = [line for line in out.decode(errors="replace").splitlines()
              if '"event"' in line]
    said = " / ".join(err.decode(errors="replace").strip().splitlines()[-6:])
    return False, seconds, f"exit {process.returncode} after {seconds:.2f} s: {said} " \
        f"{' '.join(e[:60] for e in events[-2:])}"


class ConnectChecks:
    """Fresh connects at chosen moments of an attack, each on its own thread."""

    def __init__(self, weft, port, transport):
        self.weft, self.port, self.transport = weft, port, transport
        self.results = []
        self.threads = []
        self.lock = threading.Lock()

    def start_one(self):
        def run():
            result = try_connect(self.weft, self.port, self.transport)
            with self.lock:
                self.results.append(result)
        thread = threading.Thread(target=run, daemon=True)
        thread.start()
        self.threads.append(thread)

    def finish(self):
        for thread in self.threads:
            thread.join(20)
        return self.results

    def summary(self):
        results = self.finish()
        if not results:
            return "no connect tried"
        ok = sum(1 for done, _, _ in results if done)
        slowest = max(seconds for _, seconds, _ in results)
        failures = [why for done, _, why in results if not done]
        return f"{ok}/{len(results)} connects ok (slowest {slowest:.2f} s)" + \
            (f" [failed: {'; '.join(failures)}]" if failures else "")

    def all_ok(self):
        results = self.finish()
        return all(done for done, _, _ in results)


class Sampler(threading.Thread):
    """Reads the server's memory and threads every 20 ms."""

    def __init__(self, pid, files=False):
        super().__init__(daemon=True)
        self.pid = pid
        self.files = files
        self.samples = []
        self.stopped = threading.Event()

    def run(self):
        while not self.stopped.is_set():
            status = proc_status(self.pid)
            if status is not None:
                fds = fd_count(self.pid) if self.files else 0
                self.samples.append((time.monotonic(), status[0], status[1], fds))
            self.stopped.wait(0.02)

    def peak(self):
        if not self.samples:
            return None
        return (max(s[1] for s in self.samples), max(s[2] for s in self.samples),
                max(s[3] for s in self.samples))

    def stop(self):
        self.stopped.set()
        self.join(2)


class Prober(threading.Thread):
    """Pushes `update probe N` from the console every 100 ms and remembers when."""

    def __init__(self, server, start_value=1):
        super().__init__(daemon=True)
        self.server = server
        self.next = start_value
        self.sent = {}
        self.stopped = threading.Event()

    def run(self):
        while not self.stopped.is_set():
            value = self.next
            self.next += 1
            self.sent[value] = time.time()
            if not self.server.send(f"update probe {value}"):
                break
            self.stopped.wait(PROBE_INTERVAL)

    def stop(self):
        self.stopped.set()
        self.join(5)


def probe_report(prober, client):
    """Waits for the last probe (the send bound and slack at most), then: values
    sent, lost, out of order, largest and median delay."""
    if not prober.sent:
        return {"sent": 0, "lost": 0, "disorder": 0, "max_delay": 0.0, "median_delay": 0.0}
    last = max(prober.sent)
    client.wait_value(last, SEND_BOUND + 2 * SLACK)
    with client.cond:
        values = list(client.values)
    received = {}
    order = []
    for value, at in values:
        if value in prober.sent and value not in received:
            received[value] = at
            order.append(value)
    lost = [v for v in prober.sent if v not in received]
    disorder = sum(1 for a, b in zip(order, order[1:]) if b < a)
    delays = sorted(received[v] - prober.sent[v] for v in received)
    worst = max(received, key=lambda v: received[v] - prober.sent[v]) if received else None
    return {"sent": len(prober.sent), "lost": len(lost), "disorder": disorder,
            "max_delay": delays[-1] if delays else 0.0,
            "median_delay": delays[len(delays) // 2] if delays else 0.0,
            # When the worst one was pushed, in seconds after the first probe.
            "worst_at": round(prober.sent[worst] - min(prober.sent.values()), 1)
            if worst is not None else None}


# ---------------------------------------------------------------------------
# A raw EUDP peer, written to the protocol by hand.


class RawEudpPeer:
    """Connects with CON, answers like a client that follows the protocol, and
    can be told to misbehave: stop acknowledging, send anything."""

    def __init__(self, listen_port):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((LOOPBACK, 0))
        self.sock.settimeout(0.2)
        self.local_port = self.sock.getsockname()[1]
        self.listen_port = listen_port
        self.port = None
        self.next_seq = random.randrange(0, 65535)
        self.expected = 0
        # How the server sends to this peer: reliably once asked, every data
        # packet acknowledged in order.
        self.reliable = False
        self.acking = True
        self.messages = []  # (name, value, time)
        self.datagrams = 0
        self.dis_received = False
        self.answers = {}
        self.cond = threading.Condition()
        self.stopped = threading.Event()
        self.keepalive = None
        self.thread = None

    def connect(self, timeout=3.0):
        con = self.next_seq
        self.sock.sendto(eudp_packet(b"CON", con), (LOOPBACK, self.listen_port))
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                data, source = self.sock.recvfrom(2048)
            except socket.timeout:
                continue
            packet = parse_eudp(data)
            if packet and packet[0] == b"ACK" and packet[1] == con:
                self.port = source[1]
                break
        if self.port is None:
            return False
        self.next_seq = (con + 1) % 65535
        # The sign of life a connecting client sends at once.
        self.send(b"NOP", 0)
        self.thread = threading.Thread(target=self._receive, daemon=True)
        self.thread.start()
        return True

    def send(self, command, arg, payload=b""):
        try:
            self.sock.sendto(eudp_packet(command, arg, payload), (LOOPBACK, self.port))
        except OSError:
            pass

    def send_weft(self, message):
        self.send(b"CMD", self.next_seq, message)
        self.next_seq = (self.next_seq + 1) % 65535

    def request(self, command, arg, answer, timeout=3.0):
        with self.cond:
            self.answers.pop(answer, None)
        self.send(command, arg)
        deadline = time.monotonic() + timeout
        with self.cond:
            while answer not in self.answers and time.monotonic() < deadline:
                self.cond.wait(0.1)
            return self.answers.get(answer)

    def ask_reliable_sending(self):
        """MOD asking the server to send reliably to this peer; the MAK's arg."""
        answer = self.request(b"MOD", mode_arg("RDDD"), b"MAK")
        if answer is not None and (answer >> 8) & 0xFF == ord("R"):
            self.reliable = True
        return answer

    def keep_alive(self, period=0.25):
        """NOP every `period` seconds: alive whatever else it does."""
        def run():
            while not self.stopped.wait(period):
                self.send(b"NOP", 0)
        self.keepalive = threading.Thread(target=run, daemon=True)
        self.keepalive.start()

    def _receive(self):
        while not self.stopped.is_set():
            try:
                data, source = self.sock.recvfrom(2048)
            except socket.timeout:
                continue
            except OSError:
                return
            if source[1] != self.port:
                continue
            packet = parse_eudp(data)
            if packet is None:
                continue
            command, arg, payload = packet
            with self.cond:
                self.datagrams += 1
            if command == b"CMD":
                self._data(arg % 65535, payload)
            elif command == b"DIS":
                with self.cond:
                    self.dis_received = True
                    self.cond.notify_all()
            elif command in (b"MAK", b"WAK"):
                with self.cond:
                    self.answers[command] = arg
                    self.cond.notify_all()

    def _data(self, number, payload):
        if not self.acking:
            return
        d = distance(number, self.expected)
        if d < 0:
            self.send(b"ACK", number)
            return
        if self.reliable:
            if d > 0:
                self.send(b"NAK", self.expected)
                return
            self.send(b"ACK", number)
        elif not payload:
            self.send(b"NOP", 0)
        self.expected = (number + 1) % 65535
        if payload:
            message = parse_weft(payload)
            if message:
                with self.cond:
                    self.messages.append((message[1], message[2], time.time()))
                    self.cond.notify_all()

    def wait_messages(self, name, count, timeout):
        deadline = time.monotonic() + timeout
        with self.cond:
            while time.monotonic() < deadline:
                got = [m for m in self.messages if m[0] == name]
                if len(got) >= count:
                    break
                self.cond.wait(0.1)
            return [m for m in self.messages if m[0] == name]

    def close(self, send_dis=True):
        if send_dis and self.port:
            self.send(b"DIS", self.next_seq)
        self.stopped.set()
        if self.thread:
            self.thread.join(1)
        if self.keepalive:
            self.keepalive.join(1)
        self.sock.close()


def stranger():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((LOOPBACK, 0))
    return sock


def tcp_connect(port, timeout=5.0, receive_buffer=None):
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.settimeout(timeout)
    sock.connect((LOOPBACK, port))
    return sock


def closed_by_peer(sock, within):
    """True when the server ends the stream within `within` seconds (bytes it
    sends meanwhile are read and dropped)."""
    deadline = time.monotonic() + within
    while True:
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        sock.settimeout(left)
        try:
            data = sock.recv(65536)
        except socket.timeout:
            return False
        except OSError:
            return True
        if not data:
            return True


def tcp_read_update(sock, name, timeout):
    """Reads frames until an update of `name` arrives; its value, or None."""
    deadline = time.monotonic() + timeout
    buffer = b""
    while time.monotonic() < deadline:
        while len(buffer) >= 2:
            length = struct.unpack_from("<H", buffer)[0]
            if len(buffer) < 2 + length:
                break
            message = parse_weft(buffer[2:2 + length])
            buffer = buffer[2 + length:]
            if message and message[0] == "U" and message[1] == name:
                return message[2]
        sock.settimeout(max(deadline - time.monotonic(), 0.01))
        try:
            data = sock.recv(65536)
        except socket.timeout:
            continue
        except OSError:
            return None
        if not data:
            return None
        buffer += data
    return None


def settled_count(server, predicate, quiet=0.5, timeout=10):
    """The number of matching events once no new one came for `quiet` seconds:
    the server announces connections after it has read their CONs."""
    count = server.count(predicate)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        time.sleep(quiet)
        now = server.count(predicate)
        if now == count:
            break
        count = now
    return count


def wait_until(predicate, timeout, step=0.05):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return predicate()


# ---------------------------------------------------------------------------
# Rows.

ROWS = []


def row(name, transport, groups=(), server_args=(), nofile=None, title=""):
    def register(function):
        ROWS.append({"name": name, "transport": transport, "groups": set(groups) | {"all"},
                     "server_args": list(server_args), "nofile": nofile, "run": function,
                     "title": title})
        return function
    return register


class Context:
    def __init__(self, args, server, client, workdir):
        self.weft = args.weft
        self.args = args
        self.server = server
        self.client = client
        self.workdir = workdir
        self.metrics = {}
        self.checks = []
        self.findings = []
        self.after_wait = 2.0
        # Run after the sample 2 s after the attack; what it returns ends the line.
        self.later = None

    def check(self, ok, text):
        self.checks.append((bool(ok), text))

    def finding(self, text):
        """Something without a bound that the issue's targets do not name."""
        self.findings.append(text)

    def note(self, key, value):
        self.metrics[key] = value

    def good_server_port(self):
        """The server-side UDP port of the well-behaved EUDP client."""
        return self.metrics.get("_good_server_port")


def session_ports_after(server, before, timeout=5):
    """The server's UDP ports that were not there in `before`."""
    wait_until(lambda: bool(udp_ports(server.pid) - before - {server.port}), timeout)
    found = udp_ports(server.pid) - before - {server.port}
    return found


@row("tcp-garbage", "tcp", title="TCP: random bytes, and framed random bodies of every length")
def tcp_garbage(ctx):
    port = ctx.server.port
    connections = 0
    for _ in range(200):
        sock = tcp_connect(port)
        sock.sendall(os.urandom(random.randrange(1, 8192)))
        sock.close()
        connections += 1
        time.sleep(CONNECT_GAP)
    # Framed random bodies 1..1492 on one connection: the stream must stay aligned.
    sock = tcp_connect(port)
    for length in range(1, 1493):
        body = bytearray(os.urandom(length))
        if body and body[0] == 1 and length > 1 and body[1] in b"SXF":
            body[0] = 2  # no real requests among the garbage
        sock.sendall(tcp_frame(bytes(body)))
    sock.sendall(tcp_frame(weft_subscribe("probe")))
    aligned = tcp_read_update(sock, "probe", 5) is not None
    sock.close()
    connections += 1
    ctx.check(aligned, "stream aligned after 1,492 framed garbage bodies")
    ctx.note("connections", connections)
    ctx.note("aligned", aligned)
    return f"{connections} connections of garbage; framed garbage 1..1492 B then a subscribe: " \
           f"{'answered' if aligned else 'NOT answered'}"


@row("tcp-first-bytes", "tcp", title="TCP: every first byte, every version and command byte")
def tcp_first_bytes(ctx):
    port = ctx.server.port
    for first in range(256):
        sock = tcp_connect(port)
        sock.sendall(bytes([first]) + os.urandom(63))
        sock.close()
        time.sleep(CONNECT_GAP)
    sock = tcp_connect(port)
    for byte in range(256):
        # Version byte b, then command byte b with version 1 (real commands
        # carry harmless names).
        sock.sendall(tcp_frame(bytes([byte, ord("S"), 2, 0, ord("z"), 0])))
        sock.sendall(tcp_frame(weft_message(chr(byte), b"zz\0I\0\0\0\0")))
    sock.sendall(tcp_frame(weft_subscribe("probe")))
    answered = tcp_read_update(sock, "probe", 5) is not None
    sock.close()
    ctx.check(answered, "a subscribe after 512 odd messages answered")
    return "256 connections opened with each first byte; 256 version and 256 command " \
           f"bytes on one: {'still answered' if answered else 'NOT answered'}"


@row("tcp-bad-lengths", "tcp", title="TCP: length prefixes that lie")
def tcp_bad_lengths(ctx):
    port = ctx.server.port
    cases = [
        ("prefix 0", b"\0\0", True),
        ("prefix 1, 1 byte", b"\1\0\1", True),
        ("prefix 3, short header", b"\3\0\1S\0", True),
        ("WEFT length 100 in 10 bytes", tcp_frame(struct.pack("<BBH", 1, 83, 100) + b"abcdef"),
         True),
        ("WEFT length 0 in 20 bytes", tcp_frame(struct.pack("<BBH", 1, 83, 0) + b"x" * 16), True),
        ("prefix 1492, random", tcp_frame(bytes([2]) + os.urandom(1491)), True),
        ("prefix 1493", struct.pack("<H", 1493) + os.urandom(1493), False),
        ("prefix 65535 alone", b"\xff\xff", False),
        ("prefix 65535 and 65535 bytes", b"\xff\xff" + os.urandom(65535), False),
    ]
    kept, closed, results = 0, 0, []
    for label, data, survivable in cases:
        sock = tcp_connect(port)
        sock.sendall(data)
        if survivable:
            sock.sendall(tcp_frame(weft_subscribe("probe")))
            ok = tcp_read_update(sock, "probe", 3) is not None
            kept += ok
            ctx.check(ok, f"{label}: dropped, next message answered")
        else:
            ok = closed_by_peer(sock, 2)
            closed += ok
            ctx.check(ok, f"{label}: connection closed at once")
        results.append(label)
        sock.close()
    # Half a message, then the end of the stream.
    for data in (b"\x10", b"\x10\0abc"):
        sock = tcp_connect(port)
        sock.sendall(data)
        sock.close()
    return f"{kept} lies dropped with the stream kept aligned, {closed} oversize prefixes " \
           "closed at once, 2 half messages then close"


@row("tcp-rst-storm", "tcp", title="TCP: 2,000 connects, each reset at once")
def tcp_rst_storm(ctx):
    """Non-blocking connects, 64 at a time, each reset (SO_LINGER 0) as soon as
    it stands, half of them after half a message."""
    import selectors
    port = ctx.server.port
    started = time.monotonic()
    done = failed = 0
    pending = {}
    selector = selectors.DefaultSelector()
    opened = 0
    while done + failed < 2000 and time.monotonic() - started < 30:
        while len(pending) < 64 and opened < 2000:
            sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            sock.setblocking(False)
            sock.connect_ex((LOOPBACK, port))
            pending[sock] = time.monotonic()
            selector.register(sock, selectors.EVENT_WRITE)
            opened += 1
            if opened in (500, 1000, 1500):
                ctx.connects.start_one()
        for key, _ in selector.select(0.05):
            sock = key.fileobj
            selector.unregister(sock)
            del pending[sock]
            if sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0:
                if done % 2:
                    try:
                        sock.send(b"\x10\0ab")  # half a message first
                    except OSError:
                        pass
                done += 1
            else:
                failed += 1
            sock.close()
        for sock, since in list(pending.items()):
            if time.monotonic() - since > 10:
                selector.unregister(sock)
                del pending[sock]
                sock.close()
                failed += 1
    for sock in list(pending):
        selector.unregister(sock)
        sock.close()
    seconds = time.monotonic() - started
    settled = wait_until(lambda: ctx.server.open_sessions() <= 1, 10)
    accepted = ctx.server.count(lambda e: e.get("event") == "connected") - 1
    ctx.note("resets", done)
    ctx.note("storm_s", round(seconds, 1))
    ctx.check(settled, "every reset connection released")
    ctx.check(ctx.connects.all_ok(), "a real client connects during the storm")
    return f"{done} resets in {seconds:.1f} s ({failed} connects failed), server accepted " \
           f"{accepted}, all released: {settled}; during it: {ctx.connects.summary()}"


def idle_connections(ctx, count):
    port = ctx.server.port
    socks = []
    refused = 0
    for _ in range(count):
        try:
            socks.append(tcp_connect(port, timeout=5))
        except OSError:
            refused += 1
        time.sleep(CONNECT_GAP)
    time.sleep(1.0)
    status = ctx.server.sample()
    ctx.connects.start_one()
    ctx.connects.finish()
    # Which of them the server closed at once (over its connection limit).
    closed = 0
    for sock in socks:
        sock.setblocking(False)
        try:
            if sock.recv(1) == b"":
                closed += 1
        except BlockingIOError:
            pass
        except OSError:
            closed += 1
    held = len(socks) - closed
    for sock in socks:
        sock.close()
    return status, held, closed, refused


@row("tcp-idle-1000", "tcp", groups=("memory",), title="TCP: 1,000 idle connections")
def tcp_idle(ctx):
    before = ctx.metrics["_before"]
    status, held, closed, refused = idle_connections(ctx, 1000)
    grown = (status[0] - before[0]) * 1024 / max(held, 1)
    threads = (status[1] - before[1]) / max(held, 1)
    ctx.note("held", held)
    ctx.note("kb_per_connection", round(grown, 1))
    ctx.note("threads_per_connection", round(threads, 2))
    ctx.check(ctx.connects.all_ok(), "a new client connects while 1,000 are held")
    wait_until(lambda: ctx.server.open_sessions() <= 1, 10)
    return f"{held} held: {grown:.0f} KB and {threads:.2f} threads each; " \
           f"{ctx.connects.summary()}"


@row("tcp-idle-1000-capped", "tcp", groups=("memory",), server_args=("--max-clients", "100"),
     title="TCP: 1,000 idle connections against --max-clients 100")
def tcp_idle_capped(ctx):
    status, held, closed, refused = idle_connections(ctx, 1000)
    ctx.note("held", held)
    ctx.note("closed_at_once", closed)
    ctx.check(held <= 100, "at most 100 clients held (the good client is one)")
    wait_until(lambda: ctx.server.open_sessions() <= 1, 10)
    results = ctx.connects.finish()
    return f"{held} held, {closed} closed at once by the limit, threads at {status[1]}; " \
           f"a new client while full: {'connected' if results and results[0][0] else 'refused'}"


@row("tcp-slow-subscriber", "tcp", title="TCP: a subscriber that stops reading")
def tcp_slow_subscriber(ctx):
    server = ctx.server
    slow = tcp_connect(server.port, receive_buffer=4096)
    slow.sendall(tcp_frame(weft_subscribe("big")) + tcp_frame(weft_subscribe("probe")))
    slow_client = server.client_of(slow.getsockname()[1])
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("client") == slow_client
                      and e.get("name") == "probe", 5)
    big = "s:" + "x" * 1400
    started = time.monotonic()
    started_wall = time.time()
    pushed = 0
    gone = None
    # Big updates until the server gives up on the reader; one line at a time
    # so that the probes interleave with them.
    while time.monotonic() - started < 30 and pushed < 20000:
        server.send(f"update big {big}")
        pushed += 1
        if pushed % 50 == 0:
            gone = server.wait_disconnected(slow_client, 0)
            if gone:
                break
    if gone is None:
        gone = server.wait_disconnected(slow_client, SEND_BOUND + 3 * SLACK)
    closed_after = gone["time"] - started_wall if gone else None
    slow.close()
    ctx.check(gone is not None, "the stopped reader is closed")
    ctx.note("big_updates", pushed)
    ctx.note("closed_after_s", round(closed_after, 2) if closed_after else None)
    return f"{pushed} updates of 1.4 KB pushed; the stopped reader was " + \
           (f"closed {closed_after:.1f} s after the first" if gone else "NOT closed")


@row("tcp-slow-reader", "tcp",
     title="TCP: a subscriber that reads what is there every 4 s, under the send bound")
def tcp_slow_reader(ctx):
    """Never stalled for the whole bound, so never closed: each send to it
    waits up to 4 s, and the console falls behind by that much per update."""
    server = ctx.server
    slow = tcp_connect(server.port, receive_buffer=4096)
    slow.sendall(tcp_frame(weft_subscribe("big")) + tcp_frame(weft_subscribe("probe")))
    slow_client = server.client_of(slow.getsockname()[1])
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("client") == slow_client
                      and e.get("name") == "probe", 5)
    stop = threading.Event()

    def read_slowly():
        while not stop.wait(4.0):
            slow.settimeout(0.05)
            try:
                if not slow.recv(65536):
                    return
            except socket.timeout:
                pass
            except OSError:
                return
    reader = threading.Thread(target=read_slowly, daemon=True)
    reader.start()
    big = "s:" + "x" * 1400

    def push():
        pushed = 0
        while pushed < 3000 and not stop.is_set():
            pushed += server.send(f"update big {big}", timeout=0.5)
    pusher = threading.Thread(target=push, daemon=True)
    pusher.start()
    time.sleep(ctx.args.slow_reader_s)
    gone = server.wait_disconnected(slow_client, 0)
    stop.set()
    reader.join(5)
    slow.close()
    pusher.join(10)
    server.wait_disconnected(slow_client, 10)
    ctx.note("closed_by_server", gone is not None)
    if gone is None:
        ctx.finding("a reader that takes a little before each send times out stays until "
                    "10,000 messages wait for it; the probe shows whether others waited")
    return f"3,000 updates of 1.4 KB queued on the console; after {ctx.args.slow_reader_s:.0f} s " \
           f"the reader was {'closed' if gone else 'still connected'}; then it left"


@row("tcp-trickle-50", "tcp", title="TCP: 50 peers trickling one byte a second")
def tcp_trickle(ctx):
    port = ctx.server.port
    message = tcp_frame(weft_subscribe("trickled-" + "n" * 20))
    socks = [tcp_connect(port) for _ in range(50)]
    idle = tcp_connect(port)  # says nothing: idle connections stay allowed
    first = time.monotonic()
    closed_at = {}
    sent = 0
    while len(closed_at) < len(socks) and time.monotonic() - first < TCP_MESSAGE_LIMIT + 5:
        for index, sock in enumerate(socks):
            if index in closed_at:
                continue
            try:
                if sent < len(message):
                    sock.send(message[sent:sent + 1])
            except OSError:
                closed_at[index] = time.monotonic() - first
                continue
            sock.setblocking(False)
            try:
                if sock.recv(1) == b"":
                    closed_at[index] = time.monotonic() - first
            except BlockingIOError:
                pass
            except OSError:
                closed_at[index] = time.monotonic() - first
            sock.setblocking(True)
        sent += 1
        time.sleep(1.0 - (time.monotonic() - first) % 1.0)
    peak = ctx.server.sample()
    idle.sendall(tcp_frame(weft_subscribe("probe")))
    idle_ok = tcp_read_update(idle, "probe", 3) is not None
    for sock in socks:
        sock.close()
    idle.close()
    times = sorted(closed_at.values())
    ctx.check(len(times) == 50, "all 50 trickling peers closed")
    ctx.check(times and times[-1] <= TCP_MESSAGE_LIMIT + 1.5, "closed at the 10 s message limit")
    ctx.check(idle_ok, "an idle connection of 12 s kept and answered")
    ctx.note("closed", len(times))
    ctx.note("closed_after_s", [round(times[0], 1), round(times[-1], 1)] if times else None)
    return f"{len(times)}/50 closed after {times[0]:.1f}..{times[-1]:.1f} s " \
           f"({sent} bytes sent each); a silent connection kept: {idle_ok}" if times else \
           f"none closed in {TCP_MESSAGE_LIMIT + 5:.0f} s (threads {peak[1] if peak else '?'})"


@row("tcp-subscriptions-100k", "tcp", groups=("memory",),
     title="TCP: 100,000 subscriptions of 1,400-byte names from one client")
def tcp_subscriptions(ctx):
    server = ctx.server
    sock = tcp_connect(server.port, timeout=60)
    client = server.client_of(sock.getsockname()[1])
    started = time.monotonic()
    # Drain what the server sends so that its answers never block it.
    drained = threading.Event()

    def drain():
        while not drained.is_set():
            try:
                if not sock.recv(65536):
                    return
            except socket.timeout:
                continue
            except OSError:
                return
    sock.settimeout(0.5)
    reader = threading.Thread(target=drain, daemon=True)
    reader.start()
    batch = []
    for index in range(100000):
        batch.append(tcp_frame(weft_subscribe(f"{index:08d}" + "n" * 1392)))
        if len(batch) == 200:
            sock.sendall(b"".join(batch))
            batch = []
    if batch:
        sock.sendall(b"".join(batch))
    # When this answer comes, the server has seen every subscribe before it.
    sock.sendall(tcp_frame(weft_unsubscribe("00000000" + "n" * 1392)) +
                 tcp_frame(weft_subscribe("probe")))
    done = server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("client") == client
                             and e.get("name") == "probe", 120)
    seconds = time.monotonic() - started
    peak = server.sample()
    drained.set()
    reader.join(2)
    sock.close()
    server.wait_disconnected(client, 10)
    with server.cond:
        refused = server.refused_subscriptions
    accepted = server.count(lambda e: e.get("event") == "subscribe" and e.get("client") == client
                            and not e.get("refused"))
    ctx.note("accepted", accepted)
    ctx.note("refused", refused)
    ctx.check(done is not None, "all subscriptions handled")
    ctx.check(accepted <= 10001, "subscriptions capped at 10,000")
    return f"{accepted} accepted, {refused} refused in {seconds:.1f} s " \
           f"(RSS {peak[0]:.0f} MB when done)" if peak else "server gone"


@row("eudp-random-datagrams", "eudp",
     title="EUDP: random datagrams of every size at the listening and connected ports")
def eudp_random(ctx):
    server = ctx.server
    other = stranger()
    peer = RawEudpPeer(server.port)
    connected = peer.connect()
    ctx.check(connected, "a raw peer connects")
    targets = [("listening", server.port), ("good client's server port", ctx.good_server_port()),
               ("good client's own port", ctx.metrics.get("_good_client_port"))]
    lines_before = server.log_lines()
    sent = 0
    for label, port in targets:
        if not port:
            continue
        for size in range(0, 1501):
            data = os.urandom(size)
            other.sendto(data, (LOOPBACK, port))
            sent += 1
            if size >= 8:
                # Valid-looking: version 1, a real command, random arg and payload
                # (CONs have rows of their own).
                command = random.choice([b"NOP", b"ACK", b"NAK", b"DIS", b"CMD",
                                         b"MOD", b"MAK", b"WIN", b"WAK"])
                other.sendto(eudp_packet(command, random.getrandbits(32), data[8:]),
                             (LOOPBACK, port))
                sent += 1
            if size % 100 == 0:
                time.sleep(0.005)
    # From the raw peer's own socket: garbage that its own connection must shrug off.
    for size in range(0, 1501):
        data = bytearray(os.urandom(size))
        if data:
            data[0] = 2 if data[0] == 1 else data[0]
        peer.sock.sendto(bytes(data), (LOOPBACK, peer.port))
        sent += 1
        if size % 100 == 0:
            time.sleep(0.005)
    peer.send_weft(weft_subscribe("probe"))
    answered = peer.wait_messages("probe", 1, 3)
    peer.close()
    other.close()
    intruders = server.count(lambda e: e.get("event") in ("subscribe", "call")
                             and e.get("name") not in ("probe",))
    lines = server.log_lines() - lines_before
    ctx.check(bool(answered), "the raw peer's connection still answers")
    ctx.check(intruders == 0, "no request from random datagrams reached the server")
    ctx.note("datagrams", sent)
    ctx.note("log_lines", lines)
    return f"{sent} datagrams; peer's connection answers: {bool(answered)}; " \
           f"requests from strangers: {intruders}; server log lines: {lines}"


@row("eudp-ack-nak-window", "eudp",
     title="EUDP: ACK/NAK far outside the window, 2,000 NAKs with a huge window")
def eudp_ack_nak(ctx):
    server = ctx.server
    peer = RawEudpPeer(server.port)
    ctx.check(peer.connect(), "raw peer connects")
    mak = peer.ask_reliable_sending()
    ctx.check(mak is not None, "server sends reliably to the raw peer")
    peer.send_weft(weft_subscribe("flood"))
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("name") == "flood", 3)
    # Numbers that were never sent, from the peer itself and from a stranger.
    other = stranger()
    for arg in (20000, 40000, 65534, 0xFFFFFFFF, 0x80000000):
        peer.send(b"ACK", arg)
        peer.send(b"NAK", arg)
        other.sendto(eudp_packet(b"ACK", arg), (LOOPBACK, ctx.good_server_port()))
        other.sendto(eudp_packet(b"NAK", arg), (LOOPBACK, ctx.good_server_port()))
    for value in range(200):
        server.send(f"update flood {value}")
    got = peer.wait_messages("flood", 200, 10)
    values = [m[1] for m in got]
    ctx.check(values == list(range(200)), "200 updates after the far ACKs/NAKs, all in order")
    # A huge window, updates held unacknowledged, then 2,000 NAKs that each
    # rewind the sender.
    wak = peer.request(b"WIN", 0x7FFFFFFF, b"WAK")
    peer.acking = False
    for value in range(200, 500):
        server.send(f"update flood {value}")
    time.sleep(0.5)
    with peer.cond:
        before = peer.datagrams
    for _ in range(2000):
        peer.send(b"NAK", peer.expected)
    time.sleep(2.0)
    with peer.cond:
        answered = peer.datagrams - before
    peer.acking = True
    got = peer.wait_messages("flood", 500, 10)
    values = [m[1] for m in got]
    ctx.check(values == list(range(500)), "500 updates delivered in order after the NAK storm")
    peer.close()
    other.close()
    ctx.note("wak", wak)
    ctx.note("datagrams_after_naks", answered)
    return f"200/200 after far ACK/NAK: {values[:200] == list(range(200))}; WIN 2^31-1 " \
           f"answered WAK {wak}; 2,000 NAKs over 300 held updates drew {answered} " \
           f"datagrams; {len(values)}/500 delivered in order"


@row("eudp-strangers", "eudp",
     title="EUDP: a stranger's WIN 0, WIN 2^31, ACK 20000, DIS, CMD; the peer's own far WIN/ACK")
def eudp_strangers(ctx):
    server = ctx.server
    target = ctx.good_server_port()
    client_port = ctx.metrics.get("_good_client_port")
    other = stranger()
    forged = [eudp_packet(b"WIN", 0), eudp_packet(b"WIN", 0x80000000),
              eudp_packet(b"ACK", 20000), eudp_packet(b"NAK", 0),
              eudp_packet(b"MOD", mode_arg("TDTD"))]
    forged += [eudp_packet(b"CMD", n, weft_subscribe("intruder")) for n in
               list(range(0, 64)) + [32767, 65534]]
    forged.append(eudp_packet(b"DIS", 0))
    for data in forged:
        other.sendto(data, (LOOPBACK, target))
    # The client side too: a forged update and a DIS.
    fake = eudp_packet(b"CMD", 5, weft_message("U", b"probe\0I\xff\xff\xff\xff"))
    for data in (eudp_packet(b"WIN", 0), fake, eudp_packet(b"DIS", 0)):
        other.sendto(data, (LOOPBACK, client_port))
    time.sleep(0.3)
    burst_from = 100000
    for value in range(burst_from, burst_from + 200):
        server.send(f"update probe {value}")
    ctx.client.wait_value(burst_from + 199, 10)
    with ctx.client.cond:
        seen = {v for v, _ in ctx.client.values}
    burst = sum(1 for v in range(burst_from, burst_from + 200) if v in seen)
    intruders = server.count(lambda e: e.get("name") == "intruder")
    ctx.check(burst == 200, "200 of 200 updates after the stranger's datagrams")
    ctx.check(-1 not in seen, "no forged update reached the client")
    ctx.check(intruders == 0, "no forged request reached the server")
    ctx.check(not ctx.client.dropped(), "the good client stayed connected")
    # The peer itself asking for numbers that cannot be true.
    peer = RawEudpPeer(server.port)
    ctx.check(peer.connect(), "raw peer connects")
    peer.ask_reliable_sending()
    peer.send_weft(weft_subscribe("own"))
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("name") == "own", 3)
    wak = peer.request(b"WIN", 0x80000000, b"WAK")
    peer.send(b"ACK", 20000)
    for value in range(200):
        server.send(f"update own {value}")
    own = [m[1] for m in peer.wait_messages("own", 200, 10)]
    ctx.check(own == list(range(200)), "the peer's own WIN 2^31 and ACK 20000 lose nothing")
    peer.close()
    other.close()
    return f"after a stranger's {len(forged)} datagrams: {burst}/200 delivered, forged " \
           f"update seen: {-1 in seen}, intruder requests: {intruders}, client dropped: " \
           f"{ctx.client.dropped()}; peer's own WIN 2^31 (WAK {wak}) and ACK 20000: " \
           f"{len(own)}/200 in order"


@row("eudp-dead-client-nop", "eudp",
     title="EUDP: a stranger's NOP every second to a connection whose client was killed")
def eudp_dead_client(ctx):
    server = ctx.server
    victims = []
    for _ in range(2):
        ports_before = udp_ports(server.pid)
        victim = Client(ctx.weft, server.port, "eudp", ctx.workdir)
        client_port = victim.local_port()
        session = server.client_of(client_port)
        server_port = session_ports_after(server, ports_before)
        victims.append((victim, client_port, session, min(server_port) if server_port else None))
    killed = time.monotonic()
    for victim, _, _, _ in victims:
        victim.proc.kill()
        victim.proc.wait(5)
        victim.stop()
    (_, _, session_a, port_a), (_, client_b, session_b, port_b) = victims
    # A: from a stranger's port. B: from the dead client's own address and port,
    # which a program on the same host can take once the client is gone.
    other = stranger()
    impostor = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    impostor.bind((LOOPBACK, client_b))
    stop_b_after = DEAD_PEER + 4.0
    gone_a = gone_b = None
    stopped_b = None
    while time.monotonic() - killed < stop_b_after + DEAD_PEER + 3:
        now = time.monotonic() - killed
        other.sendto(eudp_packet(b"NOP", 0), (LOOPBACK, port_a))
        if now < stop_b_after:
            impostor.sendto(eudp_packet(b"NOP", 0), (LOOPBACK, port_b))
        elif stopped_b is None:
            stopped_b = now
        if gone_a is None and server.wait_disconnected(session_a, 0):
            gone_a = now
        if gone_b is None and server.wait_disconnected(session_b, 0):
            gone_b = now
            break
        time.sleep(1.0)
    other.close()
    impostor.close()
    ctx.check(gone_a is not None and gone_a <= DEAD_PEER + 2.5,
              "a stranger's NOPs do not keep a dead session")
    if gone_b is None or gone_b > stop_b_after:
        ctx.finding("NOPs from the dead client's own address and port keep its session "
                    "for as long as they come")
    ctx.note("stranger_closed_after_s", round(gone_a, 1) if gone_a else None)
    ctx.note("own_port_closed_after_s", round(gone_b, 1) if gone_b else None)
    ctx.note("own_port_nops_for_s", round(stop_b_after, 1))
    return "from a stranger's port: closed " + \
           (f"{gone_a:.1f} s after the kill" if gone_a else "NEVER") + \
           f"; from the dead client's own port (NOPs for {stop_b_after:.0f} s): closed " + \
           (f"{gone_b:.1f} s after the kill" if gone_b else "NEVER")


def con_flood(ctx, total, rate=None, keep_open=4000, connects_at=(), outstanding=1500):
    """CONs from `total` distinct source ports; returns (sent, seconds). Paced
    by `rate` per second, or kept at most `outstanding` CONs ahead of the
    connections the server announces. The last `keep_open` sockets stay open,
    so that no real client is given a port whose CON still waits in the
    server's queue (its ACK would reach that client)."""
    server = ctx.server
    ring = []
    sent = 0
    started = time.monotonic()
    base = server.count(lambda e: e.get("event") == "connected")
    for index in range(total):
        if index in connects_at:
            ctx.connects.start_one()
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.bind((LOOPBACK, 0))
        sock.sendto(eudp_packet(b"CON", random.randrange(65535)), (LOOPBACK, server.port))
        ring.append(sock)
        sent += 1
        if len(ring) > keep_open:
            ring.pop(0).close()
        if rate:
            delay = started + sent / rate - time.monotonic()
            if delay > 0:
                time.sleep(delay)
        elif index % 100 == 99:
            # Never further ahead of the server than its socket buffer holds.
            while sent - (server.count(lambda e: e.get("event") == "connected") - base) > \
                    outstanding and time.monotonic() - started < 120:
                time.sleep(0.01)
    seconds = time.monotonic() - started
    for sock in ring:
        sock.close()
    return sent, seconds


@row("eudp-con-flood-10000", "eudp", groups=("memory",),
     title="EUDP: 10,000 CONs from as many source ports")
def eudp_con_flood(ctx):
    server = ctx.server
    base = server.count(lambda e: e.get("event") == "connected")
    sent, seconds = con_flood(ctx, 10000, connects_at=(2000, 5000, 8000),
                              outstanding=ctx.args.con_backlog or 10 ** 9)
    ctx.connects.finish()
    accepted = settled_count(server, lambda e: e.get("event") == "connected") - base - \
        len(ctx.connects.results)
    summary = ctx.connects.summary()
    ctx.check(ctx.connects.all_ok(), "a real weft connect -t eudp succeeds during the flood")
    left = ctx.server.open_sessions() - 1
    ctx.note("sent", sent)
    ctx.note("accepted", accepted)
    ctx.note("flood_s", round(seconds, 1))
    ctx.flood_targets = True
    return f"{sent} CONs in {seconds:.1f} s, {accepted} connections made; {summary}; " \
           f"{left} still open after it (the half-open limit is {HALF_OPEN_LIMIT})"


@row("eudp-con-one-port", "eudp", groups=("memory",),
     title="EUDP: CONs from one source port, each with a new number")
def eudp_con_one_port(ctx):
    """A CON from a port that has a connection already, but with another
    number, makes a new connection and takes the old one's place in the
    half-open count; the old one lives on until its dead-peer timer. Stopped
    once the server holds THREAD_GUARD threads, to spare the machine."""
    server = ctx.server
    sock = stranger()
    base = server.count(lambda e: e.get("event") == "connected")
    started = time.monotonic()
    sent = 0
    guarded = False
    number = random.randrange(65535)
    while sent < 3000 and time.monotonic() - started < 20:
        for _ in range(25):
            number = (number + 1) % 65535
            sock.sendto(eudp_packet(b"CON", number), (LOOPBACK, server.port))
            sent += 1
        if sent == 500:
            ctx.connects.start_one()
        # No further ahead of the server than a few connections, so that the
        # guard stops the growth, not only the sending.
        while sent - (server.count(lambda e: e.get("event") == "connected") - base) > 50 \
                and time.monotonic() - started < 20:
            time.sleep(0.01)
        status = server.sample()
        if status and status[1] >= THREAD_GUARD:
            guarded = True
            break
    seconds = time.monotonic() - started
    peak = server.sample()
    ctx.connects.finish()
    accepted = server.count(lambda e: e.get("event") == "connected") - base - \
        len(ctx.connects.results)
    open_sessions = server.open_sessions() - 1
    sock.close()
    ctx.flood_targets = True
    ctx.note("sent", sent)
    ctx.note("accepted", accepted)
    ctx.note("open_at_end", open_sessions)
    ctx.note("guard_hit", guarded)
    flood_end = time.monotonic()

    def released():
        gone = wait_until(lambda: server.open_sessions() <= 1, DEAD_PEER + 10, step=0.2)
        status = server.sample()
        took = time.monotonic() - flood_end
        ctx.note("released_after_s", round(took, 1) if gone else None)
        return (f"all gone {took:.1f} s after the flood" if gone else "NOT gone") + \
            (f" (threads {status[1]}, {status[0]:.0f} MB)" if status else "")
    ctx.later = released
    if open_sessions > HALF_OPEN_LIMIT:
        ctx.finding(f"{open_sessions} connections from one source port, beyond the half-open "
                    f"limit of {HALF_OPEN_LIMIT}, each until its dead-peer timer")
    return f"{sent} CONs from one port in {seconds:.1f} s, {accepted} connections made, " \
           f"{open_sessions} open at the end" + \
           (f" (stopped at the guard of {THREAD_GUARD} threads)" if guarded else "") + \
           f"; threads then {peak[1] if peak else '?'}; {ctx.connects.summary()}"


def con_dis_worker(listen_port, rounds, deadline, counts, lock):
    done = failed = 0
    for _ in range(rounds):
        if time.monotonic() > deadline:
            break
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.bind((LOOPBACK, 0))
        sock.settimeout(1.0)
        con = random.randrange(65535)
        sock.sendto(eudp_packet(b"CON", con), (LOOPBACK, listen_port))
        try:
            while True:
                data, source = sock.recvfrom(64)
                packet = parse_eudp(data)
                if packet and packet[0] == b"ACK" and packet[1] == con:
                    sock.sendto(eudp_packet(b"DIS", (con + 1) % 65535), source)
                    done += 1
                    break
        except socket.timeout:
            failed += 1
        sock.close()
    with lock:
        counts[0] += done
        counts[1] += failed


def con_dis(ctx, workers, rounds, limit_s):
    server = ctx.server
    counts = [0, 0]
    lock = threading.Lock()
    started = time.monotonic()
    deadline = started + limit_s
    threads = [threading.Thread(target=con_dis_worker,
                                args=(server.port, rounds, deadline, counts, lock), daemon=True)
               for _ in range(workers)]
    for thread in threads:
        thread.start()
    time.sleep(min(1.0, limit_s / 3))
    ctx.connects.start_one()
    for thread in threads:
        thread.join(limit_s + 30)
    seconds = time.monotonic() - started
    end = time.monotonic()
    drained = wait_until(lambda: server.open_sessions() <= 1, 30)
    drain = time.monotonic() - end
    ctx.note("rounds", counts[0])
    ctx.note("unanswered", counts[1])
    ctx.note("rounds_per_s", round(counts[0] / seconds))
    ctx.note("released_after_s", round(drain, 2))
    ctx.check(drained, "every ended session released")
    ctx.check(ctx.connects.all_ok(), "a real client connects during the churn")
    return f"{counts[0]} rounds in {seconds:.1f} s ({counts[0] / seconds:.0f}/s, " \
           f"{counts[1]} CONs unanswered); last session released {drain:.2f} s after the end; " \
           f"{ctx.connects.summary()}"


@row("eudp-con-dis-1", "eudp", groups=("memory",), title="EUDP: CON then DIS, one attacker")
def eudp_con_dis_one(ctx):
    return con_dis(ctx, 1, 5200, 8.0)


@row("eudp-con-dis-4", "eudp", groups=("memory",), title="EUDP: CON then DIS, 4 workers")
def eudp_con_dis_four(ctx):
    return con_dis(ctx, 4, 5200, 8.0)


@row("eudp-nofile-1024", "eudp", nofile=1024,
     title="EUDP: open-file limit 1024 and 100 CONs a second")
def eudp_nofile(ctx):
    seconds = DEAD_PEER + 1.5
    total = int(100 * seconds)
    server = ctx.server
    base = server.count(lambda e: e.get("event") == "connected")
    sent, took = con_flood(ctx, total, rate=100, keep_open=200,
                           connects_at=tuple(range(150, total, 200)))
    ctx.connects.finish()
    accepted = server.count(lambda e: e.get("event") == "connected") - base - \
        len(ctx.connects.results)
    summary = ctx.connects.summary()
    ctx.check(ctx.connects.all_ok(), "every real client connects during the flood")
    ctx.note("sent", sent)
    ctx.note("accepted", accepted)
    return f"{sent} CONs over {took:.1f} s, {accepted} accepted; {summary}"


@row("eudp-never-acks", "eudp",
     title="EUDP: a peer that asks for reliable sending and never acknowledges")
def eudp_never_acks(ctx):
    server = ctx.server
    peer = RawEudpPeer(server.port)
    ctx.check(peer.connect(), "raw peer connects")
    peer.ask_reliable_sending()
    peer.send_weft(weft_subscribe("flood"))
    session = server.client_of(peer.local_port)
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("name") == "flood", 3)
    peer.acking = False
    peer.keep_alive(0.25)
    started_wall = time.time()
    for value in range(1500):
        server.send(f"update flood {value}")
    gone = server.wait_disconnected(session, SEND_BOUND + 15)
    closed_after = gone["time"] - started_wall if gone else None
    time.sleep(0.5)
    with peer.cond:
        dis = peer.dis_received
    sent_to = server.count(lambda e: e.get("event") == "update" and e.get("name") == "flood"
                           and e.get("clients") == 1)
    peer.close(send_dis=False)
    ctx.check(gone is not None, "the stalled connection is closed")
    ctx.check(ctx.connects.all_ok() if ctx.connects.threads else True, "new client connects")
    ctx.note("closed_after_s", round(closed_after, 2) if closed_after else None)
    ctx.note("updates_queued", sent_to)
    return f"1,500 updates pushed; {sent_to} queued for the silent peer; it was " + \
           (f"closed {closed_after:.1f} s after the first (DIS received: {dis})" if gone
            else "NOT closed")


@row("eudp-slow-acker", "eudp",
     title="EUDP: a reliable peer that acknowledges one packet every 4 s")
def eudp_slow_acker(ctx):
    """Each acknowledgement frees a slot and starts the send wait over, so the
    peer is never closed, and every update to it waits up to 4 s."""
    server = ctx.server
    peer = RawEudpPeer(server.port)
    ctx.check(peer.connect(), "raw peer connects")
    peer.ask_reliable_sending()
    peer.send_weft(weft_subscribe("flood"))
    peer.send_weft(weft_subscribe("probe"))
    session = server.client_of(peer.local_port)
    server.wait_event(lambda e: e.get("event") == "subscribe" and e.get("name") == "probe"
                      and e.get("client") == session, 3)
    peer.acking = False
    peer.keep_alive(0.25)
    stop = threading.Event()

    def ack_slowly():
        while not stop.wait(4.0):
            peer.send(b"ACK", peer.expected)
            peer.expected = (peer.expected + 1) % 65535
    acker = threading.Thread(target=ack_slowly, daemon=True)
    acker.start()
    for value in range(1100):
        server.send(f"update flood {value}")
    time.sleep(ctx.args.slow_reader_s)
    gone = server.wait_disconnected(session, 0)
    stop.set()
    acker.join(5)
    peer.close()
    server.wait_disconnected(session, 10)
    ctx.note("closed_by_server", gone is not None)
    if gone is None:
        ctx.finding("a peer that frees one slot before each send times out stays until "
                    "10,000 messages wait for it; the probe shows whether others waited")
    return f"1,100 updates queued for it; after {ctx.args.slow_reader_s:.0f} s it was " \
           f"{'closed' if gone else 'still connected'}; then it sent DIS"


@row("serve-default-host", "tcp", title="weft serve with no --host")
def serve_default_host(ctx):
    results = []
    for transport in ("tcp", "eudp"):
        server = Server(ctx.weft, transport, ctx.workdir, host=None)
        try:
            if transport == "tcp":
                bound = tcp_listen_addresses(server.pid)
            else:
                bound = [(a, server.port) for a in udp_bound_addresses(server.pid, server.port)]
            ctx.check(server.host == LOOPBACK and all(a == LOOPBACK for a, _ in bound) and bound,
                      f"{transport}: listens on 127.0.0.1 only")
            results.append(f"{transport} bound to {','.join(a for a, _ in bound)} "
                           f"(says loopback: {server.listening.get('loopback')})")
            if transport == "tcp":
                outside = external_address()
                reached = False
                if outside:
                    try:
                        socket.create_connection((outside, server.port), 2).close()
                        reached = True
                    except OSError:
                        pass
                    ctx.check(not reached, f"not reachable at {outside}")
                    results.append(f"connect to {outside}:{server.port}: "
                                   f"{'ACCEPTED' if reached else 'refused'}")
        finally:
            server.stop()
    # --allow with a network that excludes loopback: the client is closed at once.
    server = Server(ctx.weft, "tcp", ctx.workdir, host="0.0.0.0", extra=("--allow", "10.0.0.0/8"))
    try:
        sock = tcp_connect(server.port)
        refused = closed_by_peer(sock, 3)
        sock.close()
        ctx.check(refused, "--allow 10.0.0.0/8 closes a loopback client")
        results.append(f"--host 0.0.0.0 --allow 10.0.0.0/8: loopback client "
                       f"{'closed at once' if refused else 'KEPT'}")
    finally:
        server.stop()
    return "; ".join(results)


def external_address():
    """An address of this host other than loopback, when it has one."""
    try:
        probe = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        probe.connect(("192.0.2.254", 9))
        address = probe.getsockname()[0]
        probe.close()
        return None if address.startswith("127.") else address
    except OSError:
        return None


# ---------------------------------------------------------------------------
# Running a row.


def run_row(entry, args, workdir):
    transport = entry["transport"]
    result = {"row": entry["name"], "title": entry["title"], "transport": transport}
    server = Server(args.weft, transport, workdir, extra=entry["server_args"],
                    nofile=entry["nofile"])
    client = None
    sampler = None
    prober = None
    ctx = None
    try:
        server.send("update probe 0")
        ports_before = udp_ports(server.pid)
        client = Client(args.weft, server.port, transport, workdir)
        if client.wait_value(0, 10) is None:
            raise RuntimeError("the well-behaved client did not connect")
        ctx = Context(args, server, client, workdir)
        ctx.connects = ConnectChecks(args.weft, server.port, transport)
        if transport == "eudp":
            found = session_ports_after(server, ports_before)
            ctx.metrics["_good_server_port"] = min(found) if found else None
            ctx.metrics["_good_client_port"] = client.local_port()
        time.sleep(0.5)
        before = server.sample()
        ctx.metrics["_before"] = before
        sampler = Sampler(server.pid, files=entry["nofile"] is not None)
        sampler.start()
        prober = Prober(server)
        prober.start()
        started = time.monotonic()
        try:
            detail = entry["run"](ctx)
        except Exception as error:  # the row failed; the server is still measured
            detail = f"attack stopped by {type(error).__name__}: {error}"
            ctx.check(False, detail)
        attack_s = time.monotonic() - started
        time.sleep(ctx.after_wait)
        after = server.sample()
        if ctx.later:
            detail += "; " + ctx.later()
        sampler.stop()
        peak = sampler.peak()
        prober.stop()
        probes = probe_report(prober, client)
        ctx.connects.finish()
        result.update({"detail": detail, "attack_s": round(attack_s, 1), "probe": probes})
        alive = server.alive()
        if before and peak and after:
            result.update({"rss_mb": [round(before[0], 1), round(peak[0], 1), round(after[0], 1)],
                           "threads": [before[1], peak[1], after[1]]})
            if entry["nofile"]:
                result["fds_peak"] = peak[2]
        ctx.check(alive, "server still running")
        ctx.check(probes["lost"] == 0 and probes["disorder"] == 0,
                  "the well-behaved client lost nothing")
        ctx.check(probes["max_delay"] <= SEND_BOUND + SLACK,
                  f"no probe delayed beyond the send bound ({SEND_BOUND:.0f} s)")
        ctx.check(not client.dropped(), "the well-behaved client stayed connected")
        if after and before:
            ctx.check(after[0] - before[0] <= RSS_BACK_MB,
                      f"memory within {RSS_BACK_MB} MB of the start 2 s after")
        if getattr(ctx, "flood_targets", False) and peak:
            ctx.check(peak[0] < FLOOD_RSS_MB, f"peak under {FLOOD_RSS_MB} MB")
            ctx.check(peak[1] < FLOOD_THREADS, f"peak under {FLOOD_THREADS} threads")
        result["metrics"] = {k: v for k, v in ctx.metrics.items() if not k.startswith("_")}
    finally:
        if prober:
            prober.stop()
        if sampler:
            sampler.stop()
        if client:
            client.stop()
        code = server.stop()
    report = server.sanitizer_report()
    result["exit"] = code
    if ctx is not None:
        if report:
            ctx.check(False, f"sanitizer: {report}")
        ctx.check(code == 0, f"server quit cleanly (exit {code})")
        result["checks"] = [{"ok": ok, "text": text} for ok, text in ctx.checks]
        result["findings"] = ctx.findings
        result["failed"] = [text for ok, text in ctx.checks if not ok]
    return result


def format_row(result):
    verdict = "ok" if not result.get("failed") else "FAIL"
    parts = [f"{result['row']:<24} {verdict:<4}"]
    if "rss_mb" in result:
        b, p, a = result["rss_mb"]
        tb, tp, ta = result["threads"]
        parts.append(f"rss {b:.0f}/{p:.0f}/{a:.0f} MB  thr {tb}/{tp}/{ta}")
    if "fds_peak" in result:
        parts.append(f"fds<={result['fds_peak']}")
    probe = result.get("probe")
    if probe:
        parts.append(f"probe {probe['sent'] - probe['lost']}/{probe['sent']} "
                     f"max {probe['max_delay'] * 1000:.0f} ms"
                     + (f" @{probe['worst_at']:.0f}s" if probe['max_delay'] > 0.5 else ""))
    parts.append(f"| {result.get('detail', '')}")
    if result.get("failed"):
        parts.append(f"| FAILED: {'; '.join(result['failed'])}")
    if result.get("findings"):
        parts.append(f"| UNBOUNDED: {'; '.join(result['findings'])}")
    return "  ".join(parts)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="rows: " + ", ".join(r["name"] for r in ROWS) +
                                     "; groups: all, memory")
    parser.add_argument("--weft", default=os.path.join(ROOT, "build/normal/tools/weft"),
                        help="the weft tool to attack (default: build/normal/tools/weft)")
    parser.add_argument("--rows", default="all",
                        help="comma-separated rows, parts of row names, or groups (all, memory)")
    parser.add_argument("--json-out", help="write every result to this file as JSON")
    parser.add_argument("--list", action="store_true", help="list the rows and exit")
    parser.add_argument("--seed", type=int, default=None, help="seed for the random bytes")
    parser.add_argument("--slow-reader-s", type=float, default=12.0,
                        help="how long the slow reader and the slow acknowledger stay (12; "
                        "the console falls behind by as much)")
    parser.add_argument("--con-backlog", type=int, default=1500,
                        help="CONs the 10,000-CON flood keeps ahead of the server (1500; "
                        "0: as fast as the script sends, most then dropped by the kernel)")
    args = parser.parse_args()
    if args.list:
        for entry in ROWS:
            print(f"{entry['name']:<24} {entry['title']}")
        return 0
    if not os.access(args.weft, os.X_OK):
        print(f"attacks: no weft tool at {args.weft} (build it: scripts/build.sh normal "
              "build/normal weft)", file=sys.stderr)
        return 2
    random.seed(args.seed)
    # 1,000 idle connections and 2,000 open source ports need more than the
    # usual soft limit of this process (never of the machine).
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard == resource.RLIM_INFINITY or hard > soft:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))
    wanted = [w.strip() for w in args.rows.split(",") if w.strip()]
    chosen = [entry for entry in ROWS
              if any(w in entry["groups"] or w in entry["name"] for w in wanted)]
    if not chosen:
        print(f"attacks: no row matches {args.rows}", file=sys.stderr)
        return 2
    print(f"attacking {args.weft}; columns: resident MB and threads before/peak/2 s after, "
          "probes delivered and their largest delay, what the attack saw")
    results = []
    started = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="weft-attacks-") as workdir:
        for entry in chosen:
            try:
                result = run_row(entry, args, workdir)
            except Exception as error:
                result = {"row": entry["name"], "title": entry["title"],
                          "detail": f"could not run: {type(error).__name__}: {error}",
                          "failed": [str(error)]}
            results.append(result)
            print(format_row(result), flush=True)
    failed = [r["row"] for r in results if r.get("failed")]
    print(f"{len(results) - len(failed)}/{len(results)} rows held their bounds in "
          f"{time.monotonic() - started:.0f} s" + (f"; failed: {', '.join(failed)}"
                                                     if failed else ""))
    if args.json_out:
        with open(args.json_out, "w") as out:
            json.dump({"weft": args.weft, "results": results}, out, indent=1)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
