#pragma once

#include <weft/Export.h>

#include <tavo/HostAddress.h>
#include <tavo/Types.h>

// Delivery mode of one direction of a connection; the value is the letter
// that carries it on the wire.
enum EConnMode : int
{
    CONN_MODE_DONT_CARE = 68, // 'D': no preference, keep what the peer has
    CONN_MODE_RELIABLE = 82,  // 'R': every message, in order
    CONN_MODE_REALTIME = 84,  // 'T': newest first, gaps skipped
};

// A message transport: what one sendData sends arrives as one receiveData
// result on the other side, never split and never joined.
class WEFT_EXPORT IWEFTTransport
{
public:
    virtual ~IWEFTTransport() {}

    // Asks for a send window of `size` packets at the peer; true when in force.
    virtual bool setWindowSize(uint size) = 0;
    // Binds to a local address and port and prepares to accept.
    virtual bool listen(const tavo::HostAddress& address, uint16 port) = 0;
    // Blocks until a peer connects; a new transport owned by the caller, or
    // null on failure or once the transport is disconnected.
    virtual IWEFTTransport* accept() = 0;
    // Which modes a peer's request may make this side's send mode.
    virtual void allowSendMode(bool realtime, bool reliable) = 0;
    // Which modes a peer's request may make this side's receive mode.
    virtual void allowReceiveMode(bool realtime, bool reliable) = 0;
    // Requests the mode of the data flowing from the peer to this side.
    virtual bool setSendMode(EConnMode mode) = 0;
    // Requests the mode of the data flowing from this side to the peer.
    virtual bool setReceiveMode(EConnMode mode) = 0;
    virtual bool connect(const tavo::HostAddress& address, uint16 port) = 0;
    // Closes the connection and wakes a receiveData or accept blocked in
    // another thread; a second call does nothing.
    virtual void disconnect() = 0;
    // Sends one whole message; true when it was handed to the network.
    virtual bool sendData(const uint8* data, uint length) = 0;
    // Blocks until one whole message is in `buffer`: its length (> 0), 0 once
    // the transport is closed, negative on error (-1: longer than `size`).
    virtual int receiveData(uint8* buffer, uint size) = 0;
    virtual tavo::HostAddress getPeerAddress() const = 0;
    virtual uint16 getPeerPort() const = 0;
    virtual uint16 getLocalPort() const = 0;
};
