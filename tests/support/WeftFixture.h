#pragma once

#include "EUDPTimeouts.h"

#include "support/LogCapture.h"

#include <weft/Init.h>

#include <gtest/gtest.h>

#include <memory>

// Brackets each test with weftInit/weftDeinit and captures the log. EUDP
// runs five times faster than in production (a peer is dead after 2 s, a
// connect gives up after 1 s), with margins sanitizer builds still keep;
// a test that needs other values sets its own.
class WeftFixture : public ::testing::Test
{
public:
    static constexpr int SPEED_UP = 5;

protected:
    void SetUp() override
    {
        weftInit();
        m_log = std::make_unique<LogCapture>();
        m_timeouts = std::make_unique<ScopedEUDPTimeouts>(EUDPTimeouts().shortenedBy(SPEED_UP));
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
