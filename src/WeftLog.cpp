#include "WeftLog.h"

tavo::LogOutput* weftLogOutput()
{
    return tavo::LogManager::getInstance()->getLogOutput("WEFT");
}

std::ostream& weftLog(tavo::ELogLevel level)
{
    return weftLogOutput()->level(level);
}
