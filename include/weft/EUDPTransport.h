#pragma once

#include <weft/Constants.h>
#include <weft/EUDPPacket.h>
#include <weft/Export.h>
#include <weft/IWEFTTransport.h>

#include <tavo/Callback.h>
#include <tavo/HostAddress.h>
#include <tavo/LogManager.h>
#include <tavo/Semaphore.h>
#include <tavo/Thread.h>
#include <tavo/Timer.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>

namespace tavo
{
class UdpSocket;
} // namespace tavo

class EUDPAcceptedPeers;
class IWEFTNegotiationObserver;
class EUDPLiveness;
class EUDPReceiveWindow;
class EUDPAckDelay;
class EUDPReceiverPace;
class EUDPSendWindow;
struct EUDPTimeouts;

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
    // Reliable data not yet acknowledged is given up to the send time-out
    // to get through first; then DIS.
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

    // How long sendData may wait for room while the peer acknowledges
    // nothing (0: without limit; WEFT_SEND_TIMEOUT_MS at first). When the
    // time passes the connection is closed, with a DIS, and the send fails.
    void setSendTimeout(unsigned int timeoutMs);

    // Tells `observer` (not owned; null for none) of the peer's mode and
    // window requests, on the receiver thread.
    void setNegotiationObserver(IWEFTNegotiationObserver* observer);

    // Protection against strangers, both on by default.
    // Strict peer: a connected transport ignores datagrams whose source
    // address or port is not its peer's; while connecting, the answer is
    // taken only from the address connected to. On a listening transport the
    // setting passes to every transport it accepts from then on. A peer that
    // sends from the socket it connected with, as every peer does, sees no
    // difference; off, anyone who can reach the port can disturb or close
    // the connection.
    void setStrictPeer(bool strict);
    // On a listening transport: at most `limit` accepted connections may be
    // half-open (nothing heard from their peer since the ACK); a CON beyond
    // it closes the one half-open longest. 0 sets no limit;
    // EUDP_DEFAULT_HALF_OPEN_LIMIT at first.
    void setHalfOpenLimit(unsigned int limit);
    // Whether a transport listening on :: takes IPv4 clients too (the
    // default); given before listen.
    void setDualStack(bool on);

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

    // ---- keep-alive and dead-peer timer (EUDPTimers.cpp; timer thread) ----
    // Starts watching the peer for this connection, with the given idle
    // period before a keep-alive.
    void initTimers(std::chrono::microseconds keepAlivePeriod);
    // A sign of life from the peer (receiver thread).
    void resetTimers();
    void onAliveTimer();
    // Queues a keep-alive unless that would block or the queue probes already.
    void queueKeepAlive();
    void stopTimers();

    // ---- handshake and lifecycle (EUDPHandshake.cpp; caller threads) ----
    // Sends one header-only control packet at once, to `port` or else the peer's port.
    bool sendPacket(EEUDPCommand command, uint arg, uint16 port = 0);
    void sendCon(uint first, uint16 port, bool again);
    // The connection for a CON from `source`:`port`, answered with its ACK.
    EUDPTransport* acceptConnection(const tavo::HostAddress& source, uint16 port, uint conArg);
    // Ends the threads and replaces the socket left by an earlier connection
    // or attempt, and starts the per-connection state afresh.
    void renewForConnect();
    // Sends `request` until `answered` is given and `isAnswer` holds, or the
    // time runs out; false on time-out.
    bool askPeer(tavo::BinarySemaphore& answered, std::chrono::microseconds limit,
                 std::chrono::microseconds repeat, const std::function<void()>& request,
                 const std::function<bool()>& isAnswer);

    // ---- requests (EUDPRequests.cpp; caller threads) ----
    bool requestMode(EConnMode mode, bool sendDirection);
    // Sets the send mode, lining the reliable counters up when reliable
    // sending takes over from real-time sending.
    void changeSendMode(EConnMode mode);
    // sendData with the choice not to wait for room.
    bool queueData(const uint8* data, uint length, bool waitForRoom);
    // Waits, up to the send time-out, until the peer has acknowledged every
    // reliable packet queued, the connection ends or reliable sending stops.
    void drainReliable();
    // Closes at once: DIS to a peer, socket closed, waiters woken.
    void close();

    // ---- sending (EUDPSender.cpp): the sender thread and the sends of others ----
    // Starts the sender thread when reliable sending first needs it; caller
    // holds m_sendMutex.
    void startSender();
    void senderThread();
    // One pass of the sender thread; it then sleeps until `wakeAt` (or, when
    // unset, until woken).
    void sendPass(std::optional<std::chrono::steady_clock::time_point>& wakeAt);
    // Puts on the wire whatever may go now; caller holds m_sendMutex. True
    // when real-time sending freed slots.
    bool flushSendable(std::chrono::steady_clock::time_point now);
    // After queuing or freeing under m_sendMutex: whether the sender thread
    // must be woken to keep time, and whether a caller waiting for room must.
    void afterQueued(bool freed, bool& wakeSender, bool& giveSpace);
    // Caller holds m_sendMutex: true when the sender thread must be woken
    // because a retransmission is due well before it would wake (idle, or
    // the time-out shrank once the round trip was measured).
    bool senderWakesTooLate();
    // Caller holds m_sendMutex: slots were freed and a caller waiting for
    // room should be woken for them.
    bool wakesWriter(bool freed) const;
    // Caller holds m_sendMutex: the sender thread's next duty, a probe or a
    // time-out, while reliable packets wait for acknowledgements.
    std::optional<std::chrono::steady_clock::time_point> nextSenderDeadline() const;
    // What afterQueued decided, done once m_sendMutex is released.
    void giveWakeups(bool wakeSender, bool giveSpace);
    void sendDatagram(const EUDPPacket& packet);

    // ---- receiver thread (EUDPReceiver.cpp), one handler per command ----
    void receiverThread();
    void handleDatagram(EUDPPacket& packet, uint length, const tavo::HostAddress& source,
                        uint16 sourcePort);
    // Sends what a burst of datagrams left to answer and wakes the reader.
    void endBurst();
    // While the receive ring is full, waits briefly for the reader to make
    // room for a burst before reading on.
    void waitForRoom();
    // The burst's pending acknowledgement, if any.
    void sendBurstAck();
    // An answer sent at once, after the acknowledgements it follows.
    void answer(EEUDPCommand command, uint arg);
    void handleAck(uint arg, uint16 sourcePort);
    void processAck(int seq);
    void processNak(int seq);
    void handleDisconnect();
    void handleData(const EUDPPacket& packet);
    void handleModeRequest(uint arg);
    void answerModeRequest(uint arg);
    void handleWindowRequest(uint arg);
    // Whether a request is new, not a repeat of the latest one reported.
    bool isNewRequest(EEUDPCommand command, uint arg);
    // Strict mode: whether a datagram from `source`:`port` comes from someone
    // other than the peer.
    // An ACK of our CON from the peer's host but another port, once connected.
    bool isSecondAnswer(EUDPPacket& packet, uint length, const tavo::HostAddress& source,
                        uint16 sourcePort) const;
    bool isStranger(const tavo::HostAddress& source, uint16 port) const;

    // ---- shared (EUDPTransport.cpp) ----
    static tavo::UdpSocket* newEudpSocket();
    // Marks the transport closed and closes its socket, which ends the receiver.
    void closeSocket();
    // Wakes the sender and every caller waiting in sendData or receiveData.
    void wakeWaiters();
    // An accepted transport gives up its place among its listener's half-open
    // connections; only the first call counts.
    void leaveHalfOpen();
    // "WEFT/EUDP[port]: " at `level`; the caller ends the line.
    std::ostream& log(tavo::ELogLevel level);

    tavo::UdpSocket* m_pSocket;
    tavo::HostAddress m_peerAddress;
    std::atomic<uint16> m_peerPort;
    std::atomic<uint16> m_logPort;
    // The time-outs this transport runs with; fixed at construction.
    std::unique_ptr<const EUDPTimeouts> m_pTimeouts;
    // The protocol core: the send side under m_sendMutex, the receive side
    // under m_receiveMutex.
    std::unique_ptr<EUDPSendWindow> m_pSendWindow;
    std::unique_ptr<EUDPReceiveWindow> m_pReceiveWindow;
    // Receiver thread only.
    std::unique_ptr<EUDPAckDelay> m_pAckDelay;
    std::unique_ptr<EUDPReceiverPace> m_pReceiverPace;
    // Written by the receiver, read by the requester after the semaphore; a
    // second answer may arrive while the first is read, hence atomic.
    std::atomic<uint> m_windowAnswer;
    std::atomic<uint> m_modeAnswer;
    EUDPSender m_sender;
    EUDPReceiver m_receiver;
    tavo::BinarySemaphore m_semConnected;
    tavo::BinarySemaphore m_semWindowAck;
    tavo::BinarySemaphore m_semModeAck;
    tavo::BinarySemaphore m_semSendSpace;
    // Wakes the sender: data queued, an acknowledgement, a mode or window
    // change, the end.
    tavo::BinarySemaphore m_semSendWork;
    tavo::CountingSemaphore m_semReceived;
    // Wakes the receiver thread waiting for room in the receive ring.
    tavo::BinarySemaphore m_semReceiveRoom;
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
    // Keep-alive and dead-peer decisions; made by initTimers, which sets
    // m_timersInitialised after it, and ticked only on the timer thread.
    std::unique_ptr<EUDPLiveness> m_pLiveness;
    tavo::Timer m_aliveTimer;
    std::atomic<bool> m_timersInitialised;
    tavo::LogOutput* m_pLog;
    // Owned here and freed by the destructor once the timer is stopped.
    tavo::Callback<EUDPTransport>* m_pAliveCallback;
    // Held by accept while it uses the socket, so that the destructor can wait
    // for a blocked accept to leave before the socket is freed.
    std::mutex m_acceptMutex;
    // Connecting transport: the number its CON carried, so that a second
    // answer to a repeated CON is recognised; NO_CON in other roles (no CON
    // carries it: numbers stay below 65535).
    static constexpr uint NO_CON = 0xFFFFFFFFu;
    std::atomic<uint> m_conArg;
    // An ACK for another number came while connecting (reported if the
    // connect fails).
    std::atomic<bool> m_strayAck{false};
    // Listening transport: whether accepted transports start holding.
    std::atomic<bool> m_holdModeRequests{false};
    // Accepted transport: the hold and the newest held request, under the mutex,
    // which also keeps a held answer and a new one in order.
    std::mutex m_modeHoldMutex;
    bool m_modeRequestsHeld = false;
    bool m_hasHeldModeRequest = false;
    uint m_heldModeRequest = 0;
    std::atomic<bool> m_strictPeer{true};
    std::atomic<unsigned int> m_halfOpenLimit{EUDP_DEFAULT_HALF_OPEN_LIMIT};
    // The connections a listening transport accepted, shared with them.
    std::shared_ptr<EUDPAcceptedPeers> m_pAcceptedPeers;
    // Listening transport (accept's thread): when the half-open line may be
    // written again.
    std::chrono::steady_clock::time_point m_nextHalfOpenLine;
    // Accepted transport: still counted as half-open in m_pAcceptedPeers.
    std::atomic<bool> m_halfOpen{false};
    std::atomic<IWEFTNegotiationObserver*> m_pNegotiationObserver{nullptr};
    std::atomic<unsigned int> m_sendTimeoutMs{WEFT_SEND_TIMEOUT_MS};
    // Under m_sendMutex: the sender thread sleeps without a deadline, and how
    // many callers wait for room in the send ring.
    bool m_senderIdle = false;
    // When the sender thread wakes next, while it has a deadline.
    std::chrono::steady_clock::time_point m_senderDeadline{};
    // The next packet number as the sender thread's last pass saw it.
    int m_senderSeenNumber = 0;
    bool m_senderStarted = false;
    int m_spaceWaiters = 0;
    // Receiver thread only: what the current burst of datagrams leaves to
    // answer, and how many payloads it stored.
    std::optional<uint> m_burstAck;
    std::optional<uint> m_burstNak;
    unsigned int m_burstStored = 0;
    unsigned int m_burstStoredInOrder = 0;
    // Under m_receiveMutex (the reader gives the wake-up): the receiver
    // thread waits for room in the receive ring.
    bool m_roomWanted = false;
    // Receiver thread only: it has stopped waiting for room until the reader
    // makes some, and the latest data packet left the ring full.
    bool m_receiveDraining = false;
    bool m_receiveRingFull = false;
    // The latest request reported, so that its repeats are not; under
    // m_modeHoldMutex (the receiver and the thread releasing held requests).
    EEUDPCommand m_lastReported = EUDP_UNKNOWN;
    uint m_lastReportedArg = 0;
    std::chrono::steady_clock::time_point m_lastReportedAt;
};
