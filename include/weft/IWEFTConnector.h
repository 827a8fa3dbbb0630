#pragma once

#include <weft/Export.h>

class WEFTConnection;

// Implemented by the application: receives every connection a listener
// accepts, on the listener's thread. The application owns the connection from
// then on and sets its server object here, before the connection starts.
class WEFT_EXPORT IWEFTConnector
{
public:
    virtual ~IWEFTConnector() {}
    virtual void onConnection(WEFTConnection* connection) = 0;
};
