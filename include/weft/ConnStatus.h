#pragma once

// Which transport a connection or listener uses.
enum ETransport : int
{
    TRANSPORT_EUDP = 0,
    TRANSPORT_TCP = 1,
};

// What a connection reports to its client and server objects.
enum EConnStatus : int
{
    CONN_STATUS_CONNECTED = 0,
    CONN_STATUS_DISCONNECTED = 1,
};
