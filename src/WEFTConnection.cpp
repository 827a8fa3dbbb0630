#include <weft/Init.h>

#include <tavo/CmdProcessor.h>
#include <tavo/LogManager.h>

void weftInit()
{
    tavo::SingletonDll<tavo::CmdProcessor>::createInstance();
    tavo::SingletonDll<tavo::LogManager>::createInstance();
}

void weftDeinit()
{
    tavo::SingletonDll<tavo::LogManager>::destroyInstance();
    tavo::SingletonDll<tavo::CmdProcessor>::destroyInstance();
}
