#pragma once

#include <tavo/Types.h>

// Sizes, windows and time-outs of the protocol and its transports, in one place.

// ---- WEFT messages ----
// Protocol version carried in every message header.
constexpr uint8 WEFT_VERSION = 1;
// version (1) + command (1) + payload length (2).
constexpr unsigned int WEFT_HEADER_SIZE = 4;
// A whole message fits one EUDP datagram payload.
constexpr unsigned int WEFT_MAX_PACKET_SIZE = 1492;
constexpr unsigned int WEFT_MAX_PAYLOAD = WEFT_MAX_PACKET_SIZE - WEFT_HEADER_SIZE;
// A list's entry count travels in one byte.
constexpr unsigned int PARAM_LIST_MAX_ENTRIES = 255;
// Pause before a connection closes its transport, so that requests sent just
// before leave first.
constexpr unsigned int WEFT_DISCONNECT_DELAY_MS = 10;

// How long a send may wait while the peer takes nothing, before the
// connection is closed: a peer that stops reading must not hold up the
// sender's other work for longer.
constexpr unsigned int WEFT_SEND_TIMEOUT_MS = 5000;
// A listener's connection limit of 0 sets none.
constexpr unsigned int WEFT_NO_CONNECTION_LIMIT = 0;

// ---- TCP ----
// Pending connections the kernel keeps for a listener, unless the listener
// is told otherwise: a burst of clients connecting at once must not find the
// queue full, or the kernel drops their SYNs and they retry a second later.
// The kernel caps it at its own limit (net.core.somaxconn).
constexpr int TCP_LISTEN_BACKLOG = 4096;
// The length prefix is two little-endian bytes.
constexpr unsigned int TCP_LENGTH_PREFIX_SIZE = 2;
constexpr unsigned int TCP_MAX_MESSAGE_SIZE = 65535;
// A message that has begun must arrive whole within this time, in
// milliseconds: a peer that trickles bytes would otherwise hold a receive
// thread without limit. Idle connections have no limit.
constexpr unsigned int TCP_MESSAGE_TIMEOUT_MS = 10000;

// ---- EUDP ----
constexpr uint8 EUDP_VERSION = 1;
// version (1) + command letters (3) + argument (4).
constexpr unsigned int EUDP_HEADER_SIZE = 8;
// Room for the largest WEFT message.
constexpr unsigned int EUDP_MAX_PAYLOAD = 1492;
// Header and payload; also the size of every receive on an EUDP socket.
constexpr unsigned int EUDP_MAX_PACKET_SIZE = EUDP_HEADER_SIZE + EUDP_MAX_PAYLOAD;
// Slots in each packet ring; one stays free, so a ring holds 999 packets.
constexpr unsigned int EUDP_RING_CAPACITY = 1000;
// Sequence numbers count modulo 65535 (0 to 65534).
constexpr int EUDP_SEQ_RANGE = 65535;
// Half the number space: a number up to this many steps ahead is "after".
constexpr int EUDP_SEQ_HALF = 32767;
// Unacknowledged packets a reliable sender may have in flight at first.
constexpr int EUDP_DEFAULT_WINDOW = 10;
// Silence after a keep-alive, in microseconds, after which the peer is dead.
constexpr unsigned int EUDP_DEAD_PEER_TIMEOUT = 10000000;
// Idle time before a keep-alive, in microseconds: an accepted transport speaks
// first so that the connecting side hears from it early.
constexpr unsigned int EUDP_ACCEPTED_KEEPALIVE_US = 500000;
constexpr unsigned int EUDP_CONNECTING_KEEPALIVE_US = 1000000;
// How long connect waits for the answer to its CON, in milliseconds.
constexpr unsigned int EUDP_CONNECT_TIMEOUT_MS = 5000;
// How long a mode or window request waits for the peer's answer, in milliseconds.
constexpr unsigned int EUDP_NEGOTIATION_TIMEOUT_MS = 10000;
// Silence after which a reliable sender goes back and repeats, in milliseconds.
constexpr unsigned int EUDP_RETRANSMIT_TIMEOUT_MS = 500;
// Receive buffer asked of the kernel for every EUDP socket, in bytes: with the
// kernel's bookkeeping per datagram it holds a full ring of the largest
// datagrams, so a sender with a large window is not cut short by the
// socket (the system's limit, net.core.rmem_max, may cap it).
constexpr int EUDP_SOCKET_RECEIVE_BUFFER = 2 * 1024 * 1024;
// Datagrams the receiver takes in one turn when they queue up: each turn
// ends with one cumulative acknowledgement, so a burst of a window's worth is
// answered once rather than packet by packet.
constexpr unsigned int EUDP_RECEIVE_BURST = 64;
// Free send slots that wake a writer waiting for room: one wake-up for a
// burst of writes, not one per acknowledgement.
constexpr unsigned int EUDP_SEND_WAKE_ROOM = 64;
// Packets a reliable receiver holds after a gap until the gap is filled, so
// that a sender that repeats only the missing packet is not made to repeat
// everything after it too (beyond these, later packets are dropped).
constexpr unsigned int EUDP_REORDER_SLOTS = 64;
// Empty packets sent at most for one NAK of numbers sent before reliable
// sending began: a larger gap is closed a burst at a time.
constexpr unsigned int EUDP_FILL_BURST = 64;
// A listener's half-open limit of 0 sets none: every CON is answered.
constexpr unsigned int EUDP_NO_HALF_OPEN_LIMIT = 0;
// Half-open connections a listener allows at first: each holds threads and
// a socket until its peer answers or its dead-peer timer fires, so a flood of
// CONs must not make them without bound; a real burst of clients completes
// its handshakes in milliseconds.
constexpr unsigned int EUDP_DEFAULT_HALF_OPEN_LIMIT = 64;

// ---- the weft command-line tool ----
// Port that weft serve listens on and weft connect dials when none is given;
// TCP and UDP ports are separate, so one number serves both transports.
constexpr unsigned short WEFT_TOOL_DEFAULT_PORT = 7420;
// How long weft serve waits for its listener to bind before it gives up:
// binding happens at once on the listener thread, so this only covers a
// loaded machine.
constexpr unsigned int WEFT_TOOL_LISTEN_WAIT_MS = 5000;
// How long weft demo waits for each callback; loopback answers in
// milliseconds, and the EUDP mode requests carry their own 10 s limit.
constexpr unsigned int WEFT_TOOL_DEMO_STEP_MS = 5000;
