#pragma once

// The receiving end of an EUDP connection as the protocol describes it,
// written from the wire format alone over a plain UDP socket: it takes only
// the packet it expects (acknowledging each one), answers anything later with
// a NAK for the number it expects and drops it, answers a copy with its own
// number, a real-time keep-alive with NOP, and mode and window requests as
// granted. weft's sender must deliver everything to it exactly once and in
// order, whatever it does differently inside.

#include "support/EudpWire.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

class LetterReceiver
{
public:
    // Listens on a free loopback port; accepts the first CON only.
    LetterReceiver();
    ~LetterReceiver();
    LetterReceiver(const LetterReceiver&) = delete;
    LetterReceiver& operator=(const LetterReceiver&) = delete;

    std::uint16_t listeningPort() const { return m_listeningPort; }
    // Waits until `count` payloads have arrived (or `timeout` passed) and
    // returns them in arrival order.
    std::vector<eudpwire::Bytes> waitFor(std::size_t count, std::chrono::milliseconds timeout);

private:
    void run();
    void handle(const eudpwire::Bytes& datagram);
    void answer(const char* command, std::uint32_t arg);

    int m_listening;
    int m_connection;
    std::uint16_t m_listeningPort = 0;
    std::uint16_t m_peerPort = 0;
    // Receiver thread only.
    std::int32_t m_expected = 0;
    bool m_reliable = false;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<eudpwire::Bytes> m_payloads;
    bool m_stopping = false;
    std::thread m_thread;
};
