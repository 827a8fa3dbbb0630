// Two TCPTransports on loopback: one listens and accepts, the other connects,
// and a message goes each way.
#include <weft/Init.h>
#include <weft/TCPTransport.h>

#include <cstdio>
#include <string>
#include <thread>

int main()
{
    weftInit();
    TCPTransport listener;
    listener.listen(tavo::HostAddress("127.0.0.1"), 0);
    const uint16 port = listener.getLocalPort();
    std::printf("listening on 127.0.0.1:%u\n", port);

    IWEFTTransport* server = nullptr;
    std::thread acceptor([&] { server = listener.accept(); });
    TCPTransport client;
    const bool connected = client.connect(tavo::HostAddress("127.0.0.1"), port);
    acceptor.join();
    if (!connected || server == nullptr)
    {
        std::printf("connection failed\n");
        return 1;
    }
    std::printf("connected: client port %u, server sees peer port %u\n", client.getLocalPort(),
                server->getPeerPort());

    const std::string hello = "hello from the client";
    client.sendData(reinterpret_cast<const uint8*>(hello.data()), hello.size());
    uint8 buffer[256];
    int n = server->receiveData(buffer, sizeof(buffer));
    std::printf("server received %d bytes: %.*s\n", n, n, reinterpret_cast<char*>(buffer));

    const std::string answer = "hello from the server";
    server->sendData(reinterpret_cast<const uint8*>(answer.data()), answer.size());
    n = client.receiveData(buffer, sizeof(buffer));
    std::printf("client received %d bytes: %.*s\n", n, n, reinterpret_cast<char*>(buffer));

    client.disconnect();
    n = server->receiveData(buffer, sizeof(buffer));
    std::printf("client disconnected; server's receive returns %d\n", n);
    delete server;
    listener.disconnect();
    weftDeinit();
    return 0;
}
