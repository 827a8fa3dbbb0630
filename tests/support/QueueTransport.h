#pragma once

#include <weft/IWEFTTransport.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

// A transport without a network: the test queues what receiveData returns
// and reads what sendData was given. receiveData blocks until a message is
// queued or the transport is disconnected.
class QueueTransport : public IWEFTTransport
{
public:
    typedef std::vector<uint8> Bytes;

    void queue(const Bytes& message)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_incoming.push_back(message);
        m_changed.notify_all();
    }

    std::vector<Bytes> sent() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }

    void refuseSends(bool refuse) { m_refuse = refuse; }

    bool setWindowSize(uint) override { return false; }
    bool listen(const tavo::HostAddress&, uint16) override { return false; }
    IWEFTTransport* accept() override { return nullptr; }
    void allowSendMode(bool, bool) override {}
    void allowReceiveMode(bool, bool) override {}
    bool setSendMode(EConnMode) override { return false; }
    bool setReceiveMode(EConnMode) override { return false; }
    bool connect(const tavo::HostAddress&, uint16) override { return true; }

    void disconnect() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_changed.notify_all();
    }

    bool sendData(const uint8* data, uint length) override
    {
        if (m_refuse)
        {
            return false;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.emplace_back(data, data + length);
        return true;
    }

    int receiveData(uint8* buffer, uint size) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_closed || !m_incoming.empty(); });
        if (m_incoming.empty())
        {
            return 0;
        }
        Bytes message = m_incoming.front();
        m_incoming.pop_front();
        if (message.size() > size)
        {
            return -1;
        }
        std::copy(message.begin(), message.end(), buffer);
        return static_cast<int>(message.size());
    }

    tavo::HostAddress getPeerAddress() const override { return tavo::HostAddress("10.0.0.7"); }
    uint16 getPeerPort() const override { return 4242; }
    uint16 getLocalPort() const override { return 2424; }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Bytes> m_incoming;
    std::vector<Bytes> m_sent;
    bool m_closed = false;
    std::atomic<bool> m_refuse{false};
};
