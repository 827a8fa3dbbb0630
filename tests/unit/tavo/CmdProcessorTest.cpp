#include <weft/Init.h>

#include <tavo/CmdProcessor.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

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
    EXPECT_TRUE(processor->execute("  update level \"two \\\"words\\\"\" \"\"  ", output));
    EXPECT_EQ(output, "done");
    EXPECT_EQ(seen, (std::vector<std::string>{"level", "two \"words\"", ""}));
    EXPECT_FALSE(processor->execute("unknown x", output));
    EXPECT_EQ(output, "unknown command: unknown");
    EXPECT_FALSE(processor->execute("update \"open", output));
    EXPECT_FALSE(processor->execute("   ", output));
    EXPECT_EQ(processor->getHelp("update"), "update NAME VALUE");
    EXPECT_TRUE(processor->unregisterCommand("update"));
    EXPECT_FALSE(processor->execute("update a b", output));
    weftDeinit();
}

} // namespace
