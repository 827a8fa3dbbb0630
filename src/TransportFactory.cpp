#include "TransportFactory.h"

#include <weft/EUDPTransport.h>
#include <weft/TCPTransport.h>

#include <tavo/Assert.h>

IWEFTTransport* TransportFactory::create(ETransport kind, const TransportOptions& options)
{
    switch (kind)
    {
    case TRANSPORT_EUDP:
    {
        EUDPTransport* eudp = new EUDPTransport();
        eudp->setStrictPeer(options.strictPeer);
        eudp->setHalfOpenLimit(options.halfOpenLimit);
        eudp->holdModeRequests(options.holdModeRequests);
        eudp->setDualStack(options.dualStack);
        return eudp;
    }
    case TRANSPORT_TCP:
    {
        TCPTransport* tcp = new TCPTransport();
        tcp->setListenBacklog(options.listenBacklog);
        tcp->setDualStack(options.dualStack);
        return tcp;
    }
    }
    TAVO_ASSERT_TEXT(false, "unknown ETransport");
    return nullptr;
}

void TransportFactory::setStrictPeer(IWEFTTransport& transport, bool strict)
{
    if (EUDPTransport* eudp = dynamic_cast<EUDPTransport*>(&transport))
    {
        eudp->setStrictPeer(strict);
    }
}

void TransportFactory::setSendTimeout(IWEFTTransport& transport, unsigned int timeoutMs)
{
    if (EUDPTransport* eudp = dynamic_cast<EUDPTransport*>(&transport))
    {
        eudp->setSendTimeout(timeoutMs);
    }
    else if (TCPTransport* tcp = dynamic_cast<TCPTransport*>(&transport))
    {
        tcp->setSendTimeout(timeoutMs);
    }
}

void TransportFactory::setNegotiationObserver(IWEFTTransport& transport,
                                              IWEFTNegotiationObserver* observer)
{
    if (EUDPTransport* eudp = dynamic_cast<EUDPTransport*>(&transport))
    {
        eudp->setNegotiationObserver(observer);
    }
}

void TransportFactory::releaseHeldModeRequests(IWEFTTransport& transport)
{
    if (EUDPTransport* eudp = dynamic_cast<EUDPTransport*>(&transport))
    {
        eudp->releaseModeRequests();
    }
}
