#pragma once

#include "support/LogCapture.h"

#include <weft/Init.h>

#include <gtest/gtest.h>

#include <memory>

// Brackets each test with weftInit/weftDeinit and captures the log.
class WeftFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        weftInit();
        m_log = std::make_unique<LogCapture>();
    }

    void TearDown() override
    {
        m_log.reset();
        weftDeinit();
    }

    LogCapture& log() { return *m_log; }

private:
    std::unique_ptr<LogCapture> m_log;
};
