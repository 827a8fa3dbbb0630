#pragma once

#include "EUDPTimeouts.h"

#include "support/LogCapture.h"

#include <weft/Init.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

// Brackets each test with weftInit/weftDeinit and captures the log. EUDP
// runs five times faster than in production (a peer is dead after 2 s), with
// margins sanitizer builds still keep, and a connect gives up after 2 s; a
// test that needs other values sets its own.
class WeftFixture : public ::testing::Test
{
public:
    static constexpr int SPEED_UP = 5;

protected:
    void SetUp() override
    {
        weftInit();
        m_log = std::make_unique<LogCapture>();
        EUDPTimeouts faster = EUDPTimeouts().shortenedBy(SPEED_UP);
        // A connect that is answered returns at once; only one that is not
        // waits this long, and a busy machine must not make an answer late.
        faster.connect = std::chrono::seconds(2);
        m_timeouts = std::make_unique<ScopedEUDPTimeouts>(faster);
    }

    void TearDown() override
    {
        m_timeouts.reset();
        m_log.reset();
        weftDeinit();
    }

    LogCapture& log() { return *m_log; }
    // The time-outs EUDP transports made now run with.
    static EUDPTimeouts timeouts() { return EUDPTimeouts::standard(); }

private:
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<ScopedEUDPTimeouts> m_timeouts;
};
