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
    const auto texts = capture.texts();
    ASSERT_EQ(texts.size(), static_cast<std::size_t>(threads * linesEach));
    std::set<std::string> unique(texts.begin(), texts.end());
    EXPECT_EQ(unique.size(), texts.size());
    for (int t = 0; t < threads; ++t)
    {
        EXPECT_TRUE(capture.contains("writer " + std::to_string(t) + " line 499 end"));
    }
}

TEST_F(LogManagerTest, LinesAboveTheMaximumLevelAreDroppedAndFormattingEndsWithItsLine)
{
    LogCapture capture;
    tavo::LogManager::getInstance()->setMaxLevel(3);
    weft().level(2) << std::hex << 255 << std::endl;
    weft().level(3) << 255 << std::endl;
    weft().level(4) << "detail" << std::endl;
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{"ff", "255"}));
    EXPECT_EQ(capture.lines()[0].output, "WEFT");
    EXPECT_EQ(capture.lines()[0].level, 2);
    EXPECT_TRUE(weft().isEnabled(3));
    EXPECT_FALSE(weft().isEnabled(4));
}

TEST_F(LogManagerTest, OutputsAreSharedByName)
{
    tavo::LogManager* manager = tavo::LogManager::getInstance();
    EXPECT_EQ(manager->getLogOutput("WEFT"), manager->getLogOutput("WEFT"));
    EXPECT_NE(manager->getLogOutput("WEFT"), manager->getLogOutput("OTHER"));
    EXPECT_EQ(manager->getLogOutput("OTHER")->getName(), "OTHER");
}

TEST_F(LogManagerTest, DefaultSinkWritesErrorsToStandardError)
{
    testing::internal::CaptureStderr();
    weft().level(2) << "visible error" << std::endl;
    weft().level(5) << "hidden detail" << std::endl;
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written, "visible error\n");
}

} // namespace
