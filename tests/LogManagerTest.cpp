#include "support/LogCapture.h"

#include <weft/Init.h>

#include <tavo/CmdProcessor.h>
#include <tavo/LogManager.h>

#include <gtest/gtest.h>

#include <iomanip>
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

TEST(InitTest, InitAndDeinitMayBeRepeatedAndDeinitWithoutInitDoesNothing)
{
    weftDeinit();
    weftDeinit();
    EXPECT_FALSE(tavo::LogManager::hasInstance());
    for (int round = 0; round < 2; ++round)
    {
        weftInit();
        EXPECT_TRUE(tavo::LogManager::hasInstance());
        EXPECT_TRUE(tavo::CmdProcessor::hasInstance());
        weftDeinit();
        EXPECT_FALSE(tavo::LogManager::hasInstance());
        EXPECT_FALSE(tavo::CmdProcessor::hasInstance());
    }
}

TEST(InitDeathTest, ASecondInitOrLoggingBeforeInitStopsAtTheAssertion)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            weftInit();
            weftInit();
        },
        "s_pInstance == __null");
    EXPECT_DEATH(tavo::LogManager::getInstance(), "s_pInstance");
}

TEST(CmdProcessorTest, RunsRegisteredCommandsWithTheirArguments)
{
    weftInit();
    tavo::CmdProcessor* processor = tavo::CmdProcessor::getInstance();
    std::vector<std::string> seen;
    ASSERT_TRUE(processor->registerCommand("update", "update NAME VALUE",
                                           [&](const std::vector<std::string>& arguments)
                                           {
                                               seen = arguments;
                                               return std::string("done");
                                           }));
    EXPECT_FALSE(processor->registerCommand("update", "", [](const auto&) { return ""; }));
    std::string output;
    EXPECT_TRUE(processor->execute("  update level \"two words\"  ", output));
    EXPECT_EQ(output, "done");
    EXPECT_EQ(seen, (std::vector<std::string>{"level", "two words"}));
    EXPECT_FALSE(processor->execute("unknown x", output));
    EXPECT_EQ(output, "unknown command: unknown");
    EXPECT_FALSE(processor->execute("update \"open", output));
    EXPECT_FALSE(processor->execute("   ", output));
    EXPECT_EQ(processor->getHelp("update"), "update NAME VALUE");
    EXPECT_TRUE(processor->unregisterCommand("update"));
    EXPECT_FALSE(processor->execute("update a b", output));
    weftDeinit();
}

TEST(CmdProcessorTest, SplitHandlesQuotesAndEscapes)
{
    std::vector<std::string> words;
    ASSERT_TRUE(tavo::CmdProcessor::split("call f \"a \\\"b\\\"\" \"\" x", words));
    EXPECT_EQ(words, (std::vector<std::string>{"call", "f", "a \"b\"", "", "x"}));
}

} // namespace
