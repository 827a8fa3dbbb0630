#pragma once

#include <weft/ConnStatus.h>
#include <weft/Export.h>
#include <weft/ParameterValue.h>

#include <string>

// Implemented by the application on the side that subscribes and calls
// functions. Called on the connection's receive thread, one message at a
// time; the arguments are valid only during the call.
class WEFT_EXPORT IWEFTClient
{
public:
    virtual ~IWEFTClient() {}
    virtual void onTrigger(const std::string& name, const ParameterValue& value) = 0;
    virtual void onUpdateState(const std::string& name, const ParameterValue& value) = 0;
    virtual void onStatus(EConnStatus status) = 0;
};
