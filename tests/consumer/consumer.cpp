// Uses the installed library through its public headers only: two TCP
// transports on loopback exchange one message.
#include <weft/Init.h>
#include <weft/TCPTransport.h>

#include <cstdio>
#include <cstring>
#include <thread>

int main()
{
    weftInit();
    TCPTransport listener;
    if (!listener.listen(tavo::HostAddress("127.0.0.1"), 0))
    {
        std::fprintf(stderr, "listen failed\n");
        return 1;
    }
    const uint16 port = listener.getLocalPort();
    IWEFTTransport* accepted = nullptr;
    std::thread acceptor([&] { accepted = listener.accept(); });
    TCPTransport client;
    const bool connected = client.connect(tavo::HostAddress("localhost"), port);
    acceptor.join();
    if (!connected || accepted == nullptr)
    {
        std::fprintf(stderr, "connect failed\n");
        return 1;
    }
    const char text[] = "installed";
    client.sendData(reinterpret_cast<const uint8*>(text), sizeof(text));
    uint8 buffer[64] = {};
    const int received = accepted->receiveData(buffer, sizeof(buffer));
    const bool same = received == static_cast<int>(sizeof(text)) &&
                      std::memcmp(buffer, text, sizeof(text)) == 0;
    client.disconnect();
    accepted->disconnect();
    delete accepted;
    listener.disconnect();
    weftDeinit();
    std::printf("consumer %s\n", same ? "ok" : "FAILED");
    return same ? 0 : 1;
}
