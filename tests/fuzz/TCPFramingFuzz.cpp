// Writes the fuzzer's bytes into a connected stream, closes it, and reads it
// with a TCP transport until it ends: exactly the messages the length
// prefixes frame come out, empty ones skipped, and the end is -1 for a
// message longer than the receive buffer or 0 for the end of the stream.
//
// Input: the receive buffer's size (little-endian 16 bits), the size of each
// write (one byte; 0 writes everything at once), then the stream.

#include "FuzzSupport.h"

#include <weft/TCPTransport.h>

#include <tavo/TcpSocket.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <thread>

namespace
{

// What the stream holds: the messages, and the result that ends the reading.
struct Framing
{
    std::vector<Bytes> messages;
    int end = 0;
};

Framing frame(const Bytes& stream, std::size_t room)
{
    Framing framing;
    fuzz::Input in(stream.data(), stream.size());
    while (in.remaining() >= 2)
    {
        const std::size_t length = in.u16();
        if (length > room)
        {
            framing.end = -1;
            break;
        }
        // A message cut short by the close is dropped, and the next read ends.
        if (in.remaining() < length)
        {
            break;
        }
        if (length > 0)
        {
            framing.messages.push_back(in.take(length));
        }
    }
    return framing;
}

// Writes `stream` in pieces of `piece` bytes (0: at once), then closes the
// writing direction. Ends early when the reader has gone.
void writeStream(int fd, const Bytes& stream, std::size_t piece)
{
    std::size_t position = 0;
    while (position < stream.size())
    {
        const std::size_t count =
            piece == 0 ? stream.size() - position : std::min(piece, stream.size() - position);
        const ssize_t sent = ::send(fd, stream.data() + position, count, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
        {
            continue;
        }
        if (sent <= 0)
        {
            break;
        }
        position += static_cast<std::size_t>(sent);
    }
    ::shutdown(fd, SHUT_WR);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t room = input.u16();
    const std::size_t piece = input.u8();
    const Bytes stream = input.rest();
    const Framing wanted = frame(stream, room);

    int fds[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0,
               "no socket pair: errno " + fuzz::str(errno));
    TCPTransport reader(new tavo::TcpSocket(fds[0]));
    std::thread writer(writeStream, fds[1], std::cref(stream), piece);

    // Exactly `room` bytes, so that a body written past them is reported.
    std::unique_ptr<uint8[]> buffer(new uint8[room]);
    std::vector<Bytes> messages;
    int end;
    while ((end = reader.receiveData(buffer.get(), static_cast<uint>(room))) > 0)
    {
        FUZZ_CHECK(static_cast<std::size_t>(end) <= room &&
                       messages.size() < wanted.messages.size(),
                   "message " + fuzz::str(messages.size()) + " of " + fuzz::str(end) +
                       " bytes, with room for " + fuzz::str(room) + " and " +
                       fuzz::str(wanted.messages.size()) + " framed");
        messages.emplace_back(buffer.get(), buffer.get() + end);
        FUZZ_CHECK(messages.back() == wanted.messages[messages.size() - 1],
                   "received " + fuzz::hex(messages.back()) + "\n  framed   " +
                       fuzz::hex(wanted.messages[messages.size() - 1]));
    }
    FUZZ_CHECK(messages.size() == wanted.messages.size() && end == wanted.end,
               "received " + fuzz::str(messages.size()) + " messages ending in " + fuzz::str(end) +
                   ", framed " + fuzz::str(wanted.messages.size()) + " ending in " +
                   fuzz::str(wanted.end));
    if (end == 0)
    {
        // The end of the stream stays the end.
        FUZZ_CHECK(reader.receiveData(buffer.get(), static_cast<uint>(room)) == 0,
                   "a second read after the end");
    }
    // Closing wakes a writer still blocked on a full stream; a closed
    // transport reads nothing.
    reader.disconnect();
    writer.join();
    ::close(fds[1]);
    FUZZ_CHECK(reader.receiveData(buffer.get(), static_cast<uint>(room)) == 0,
               "a disconnected transport still read");
    return 0;
}
