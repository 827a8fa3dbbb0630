#pragma once

#include <weft/EUDPPacket.h>
#include <weft/Export.h>
#include <weft/IWEFTTransport.h>
#include <weft/ModuloValue.h>
#include <weft/RingBuffer.h>

#include <tavo/Callback.h>
#include <tavo/HostAddress.h>
#include <tavo/Semaphore.h>
#include <tavo/Thread.h>
#include <tavo/Timer.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <ostream>

namespace tavo
{
class LogOutput;
class UdpSocket;
} // namespace tavo

// Messages over UDP: a CON/ACK handshake, keep-alive and dead-peer timers,
// sequence numbers modulo 65535 and, per direction, real-time delivery (newest
// first, gaps skipped) or reliable delivery (a sliding window with ACK, NAK and
// go-back retransmission) as negotiated with the peer. A sender and a receiver
// thread run per connection; an accepted connection has a socket and port of
// its own.
class WEFT_EXPORT EUDPTransport : public IWEFTTransport
{
public:
    // Listening and connecting roles.
    EUDPTransport();
    // Accepted role: the peer is known from its connection request.
    EUDPTransport(const tavo::HostAddress& peer, uint16 port);
    // Ends both threads and frees everything; sends nothing (a peer hears of
    // the end only through disconnect).
    ~EUDPTransport() override;
    EUDPTransport(const EUDPTransport&) = delete;
    EUDPTransport& operator=(const EUDPTransport&) = delete;

    // Sets the peer's send window (packets in flight towards this side).
    bool setWindowSize(uint size) override;
    bool listen(const tavo::HostAddress& address, uint16 port) override;
    // Blocks for a connection request; the new transport answers from a new port.
    IWEFTTransport* accept() override;
    void allowSendMode(bool realtime, bool reliable) override;
    void allowReceiveMode(bool realtime, bool reliable) override;
    // Both ask the peer and mirror its answer: waits up to 10 s.
    bool setSendMode(EConnMode mode) override;
    bool setReceiveMode(EConnMode mode) override;
    // Waits up to 5 s for the answer to the connection request.
    bool connect(const tavo::HostAddress& address, uint16 port) override;
    void disconnect() override;
    // Queues one data packet; blocks while the send ring is full.
    bool sendData(const uint8* data, uint length) override;
    int receiveData(uint8* buffer, uint size) override;
    tavo::HostAddress getPeerAddress() const override;
    uint16 getPeerPort() const override;
    uint16 getLocalPort() const override;

    // On a listening transport: the transports it accepts hold the peer's mode
    // requests, unanswered, until releaseModeRequests(). A server thereby sets
    // an accepted connection's allowed modes before any request is judged,
    // however early the client asks. Off by default.
    void holdModeRequests(bool hold);
    // Answers the newest held mode request, if any, and stops holding.
    void releaseModeRequests();

    // Protection against strangers; both are off by default, which leaves
    // every datagram and every CON handled as it arrives.
    // Strict peer: a connected transport ignores datagrams whose source
    // address or port is not its peer's; while connecting, the answer is
    // taken only from the address connected to. On a listening transport the
    // setting passes to every transport it accepts from then on.
    void setStrictPeer(bool strict);
    // On a listening transport: at most `limit` accepted connections may be
    // half-open (nothing heard from their peer since the ACK); further CONs
    // are ignored until one completes or closes. 0 sets no limit.
    void setHalfOpenLimit(unsigned int limit);

private:
    friend class EUDPTransportTestPeer;

    // Runs senderThread().
    class EUDPSender : public tavo::Thread
    {
    public:
        EUDPSender();
        ~EUDPSender() override;
        void run() override;

        EUDPTransport* m_pOwner;
    };

    // Runs receiverThread().
    class EUDPReceiver : public tavo::Thread
    {
    public:
        EUDPReceiver();
        ~EUDPReceiver() override;
        void run() override;

        EUDPTransport* m_pOwner;
    };

    // Runs once; later calls do nothing.
    void initTimers(uint keepAlivePeriod);
    // A sign of life: restarts the idle timer, stops the dead-peer timer.
    void resetTimers();
    void onSendAliveTimer();
    void onAliveTimer();

    // Sends one header-only control packet at once, to `port` or else the peer's port.
    bool sendPacket(EEUDPCommand command, uint arg, uint16 port = 0);

    void senderThread();
    void realtimeStep();
    void reliableStep();
    // Where the reliable step's search for the first queued packet after
    // m_lastSentSeq ends: that packet's index, or the number queued when there
    // is none. Caller holds m_sendMutex; the ring is not empty.
    uint firstUnsentIndex();
    // Repeats everything after the last acknowledged packet.
    void goBack();
    void processAck(int seq);
    void processNak(int seq);

    void receiverThread();
    void handleData(const EUDPPacket& packet);
    void handleModeRequest(uint arg);

    // sendData with the choice not to wait for room: the keep-alive runs on
    // the shared timer thread and must never block there.
    bool queueData(const uint8* data, uint length, bool waitForRoom);
    // Asks the peer for modes; `sendDirection` picks setSendMode's bytes.
    bool requestMode(EConnMode mode, bool sendDirection);
    // Sets the send mode, lining the reliable counters up when real-time
    // sending gives way to reliable sending.
    void changeSendMode(EConnMode mode);
    // Marks the transport closed and closes its socket, which ends the receiver.
    void closeSocket();
    // Wakes the sender and every caller waiting in sendData or receiveData.
    void wakeWaiters();
    // Stops whichever of the two timers is armed.
    void stopTimers();
    // Ends the threads and replaces the socket left by an earlier connection
    // or attempt, and starts the per-connection state afresh.
    void renewForConnect();
    // "WEFT/EUDP[port]: " at `level`; the caller ends the line.
    std::ostream& log(int level);
    // Strict mode: whether a datagram from `source`:`port` comes from someone
    // other than the peer.
    bool isStranger(const tavo::HostAddress& source, uint16 port) const;
    // An accepted transport gives up its place among its listener's half-open
    // connections; only the first call counts.
    void leaveHalfOpen();

    tavo::UdpSocket* m_pSocket;
    tavo::HostAddress m_peerAddress;
    std::atomic<uint16> m_peerPort;
    std::atomic<uint16> m_logPort;
    ModuloValue m_nextSendSeq;
    ModuloValue m_lastSentSeq;
    ModuloValue m_lastAckedSeq;
    ModuloValue m_expectedSeq;
    int m_inFlight;
    // Written by the receiver, read by the requester after the semaphore; a
    // second answer may arrive while the first is read, hence atomic.
    std::atomic<uint> m_windowAnswer;
    std::atomic<uint> m_modeAnswer;
    EUDPSender m_sender;
    EUDPReceiver m_receiver;
    tavo::BinarySemaphore m_semConnected;
    tavo::BinarySemaphore m_semAck;
    tavo::BinarySemaphore m_semWindowAck;
    tavo::BinarySemaphore m_semModeAck;
    tavo::BinarySemaphore m_semSendSpace;
    tavo::BinarySemaphore m_semSendWork;
    tavo::CountingSemaphore m_semReceived;
    tavo::MutexSemaphore m_receiveMutex;
    tavo::MutexSemaphore m_sendMutex;
    std::atomic<bool> m_allowSendRealtime;
    std::atomic<bool> m_allowSendReliable;
    std::atomic<bool> m_allowReceiveRealtime;
    std::atomic<bool> m_allowReceiveReliable;
    std::atomic<EConnMode> m_sendMode;
    std::atomic<EConnMode> m_receiveMode;
    std::atomic<int> m_windowSize;
    std::atomic<bool> m_closed;
    RingBuffer<EUDPPacket> m_receiveBuffer;
    RingBuffer<EUDPPacket> m_sendBuffer;
    uint m_keepAlivePeriod;
    tavo::Timer m_sendAliveTimer;
    tavo::Timer m_aliveTimer;
    // Read by the receiver's resetTimers while initTimers sets it.
    std::atomic<bool> m_timersInitialised;
    tavo::LogOutput* m_pLog;
    // Owned here and freed by the destructor once the timers are stopped, so
    // a timer never calls a freed callback.
    tavo::Callback<EUDPTransport>* m_pSendAliveCallback;
    tavo::Callback<EUDPTransport>* m_pAliveCallback;
    // Held by accept while it uses the socket, so that the destructor can wait
    // for a blocked accept to leave before the socket is freed.
    std::mutex m_acceptMutex;
    // Listening transport: whether accepted transports start holding.
    std::atomic<bool> m_holdModeRequests{false};
    // Accepted transport: the hold and the newest held request, under the mutex,
    // which also keeps a held answer and a new one in order.
    std::mutex m_modeHoldMutex;
    bool m_modeRequestsHeld = false;
    bool m_hasHeldModeRequest = false;
    uint m_heldModeRequest = 0;
    std::atomic<bool> m_strictPeer{false};
    std::atomic<unsigned int> m_halfOpenLimit{EUDP_NO_HALF_OPEN_LIMIT};
    // Half-open connections of a listening transport, shared with the
    // transports it accepts, which may outlive it.
    std::shared_ptr<std::atomic<unsigned int>> m_pHalfOpenCount;
    // Accepted transport: still counted in m_pHalfOpenCount.
    std::atomic<bool> m_halfOpen{false};
};
