#include "support/LogCapture.h"

#include <weft/Init.h>

#include <tavo/LogManager.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace
{

class LogManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { weftInit(); }
    void TearDown() override { weftDeinit(); }
    tavo::LogOutput& weft() { return *tavo::LogManager::getInstance()->getLogOutput("WEFT"); }
};

TEST_F(LogManagerTest, ManyThreadsLoggingAtOnceProduceWholeLines)
{
    LogCapture capture;
    constexpr int threads = 8;
    constexpr int linesEach = 500;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t)
    {
        writers.emplace_back(
            [&, t]
            {
                for (int i = 0; i < linesEach; ++i)
                {
                    weft().level(3) << "writer " << t << " line " << i << " end" << std::endl;
                }
            });
    }
    for (auto& writer : writers)
    {
        writer.join();
    }
    std::set<std::string> unique;
    for (const LogCapture::Line& line : capture.lines())
    {
        unique.insert(line.text);
    }
    EXPECT_EQ(unique.size(), static_cast<std::size_t>(threads * linesEach));
    EXPECT_EQ(unique.count("writer 7 line 499 end"), 1u);
}

TEST_F(LogManagerTest, LinesAboveTheMaximumLevelAreDroppedAndFormattingEndsWithItsLine)
{
    {
        LogCapture capture;
        tavo::LogManager::getInstance()->setMaxLevel(3);
        weft().level(2) << std::hex << 255 << std::endl;
        weft().level(3) << 255 << std::endl;
        weft().level(4) << "detail" << std::endl;
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].output + " " + std::to_string(lines[0].level) + " " + lines[0].text,
                  "WEFT 2 ff");
        EXPECT_EQ(lines[1].text, "255");
        EXPECT_FALSE(weft().isEnabled(4));
    }
    // The default sink writes errors, and no detail, to standard error.
    testing::internal::CaptureStderr();
    weft().level(2) << "visible error" << std::endl;
    weft().level(5) << "hidden detail" << std::endl;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "visible error\n");
}

} // namespace
