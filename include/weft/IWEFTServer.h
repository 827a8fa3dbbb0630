#pragma once

#include <weft/ConnStatus.h>
#include <weft/Export.h>
#include <weft/ParameterList.h>

#include <string>

// Implemented by the application on the side that accepts connections. Called
// on the connection's receive thread, one message at a time; the arguments
// are valid only during the call.
class WEFT_EXPORT IWEFTServer
{
public:
    virtual ~IWEFTServer() {}
    virtual void onSubscribe(const std::string& name) = 0;
    virtual void onUnsubscribe(const std::string& name) = 0;
    virtual void onCallFunctionId(const std::string& name, const ParameterList& params) = 0;
    virtual void onStatus(EConnStatus status) = 0;
};
