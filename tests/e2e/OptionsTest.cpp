#include "tools/replay/Options.h"

#include <gtest/gtest.h>

namespace {

using Args = std::vector<std::string>;

TEST(Options, ReadsValuesInBothFormsAndKeepsTheLast) {
    const auto parsed = ParseOptions({"--loop", "7", "--threads=3", "--transport", "tcp", "--interrupt-every=50",
                                      "--clients", "64", "--agent-mode=single", "--timed", "--start-by-client",
                                      "--json", "a.pcap", "--loop=9", "--", "--b"});
    const auto* options = std::get_if<ReplayOptions>(&parsed);
    ASSERT_TRUE(options) << std::get<std::string>(parsed);
    EXPECT_EQ(options->loop, 9u);
    EXPECT_EQ(options->threads, 3u);
    EXPECT_EQ(options->interruptEvery, 50u);
    EXPECT_EQ(options->transport, Transport::Tcp);
    EXPECT_EQ(options->clients, 64u);
    EXPECT_EQ(options->agentMode, AgentMode::Single);
    EXPECT_TRUE(options->timed && options->startByClient && options->json);
    EXPECT_FALSE(options->help || options->version);
    EXPECT_EQ(options->captures, (Args{"a.pcap", "--b"}));
}

TEST(Options, RefusesWhatItCannotUseWithALineThatNamesIt) {
    struct Case {
        Args args;
        const char* error;
    };
    for (const Case& c : {
             Case{{"--what"}, "unknown option --what"},
             {{"-x"}, "unknown option -x"},
             {{"--what=3"}, "unknown option --what"},
             {{"--loop"}, "--loop needs a value"},
             {{"--loop", "0"}, "--loop takes a number from 1 to 1000000, not \"0\""},
             {{"--loop", "-1"}, "--loop takes a number from 1 to 1000000, not \"-1\""},
             {{"--loop", "5x"}, "--loop takes a number from 1 to 1000000, not \"5x\""},
             {{"--loop="}, "--loop takes a number from 1 to 1000000, not \"\""},
             {{"--threads", "65"}, "--threads takes a number from 1 to 64, not \"65\""},
             {{"--threads", "99999999999999999999"},
              "--threads takes a number from 1 to 64, not \"99999999999999999999\""},
             {{"--interrupt-every", "no"}, "--interrupt-every takes a number from 1 to 1000000000, not \"no\""},
             {{"--clients", "0"}, "--clients takes a number from 1 to 64, not \"0\""},
             {{"--clients=65"}, "--clients takes a number from 1 to 64, not \"65\""},
             {{"--clients", "four"}, "--clients takes a number from 1 to 64, not \"four\""},
             {{"--clients"}, "--clients needs a value"},
             {{"--agent-mode", "both"}, "--agent-mode takes single or multi, not \"both\""},
             {{"--agent-mode="}, "--agent-mode takes single or multi, not \"\""},
             {{"--side-channel", "usb"}, "--side-channel takes tcp or virtual, not \"usb\""},
             {{"--log-config="}, "--log-config takes a file name, not \"\""},
             {{"--transport", "pipe"}, "--transport takes unix or tcp, not \"pipe\""},
             {{"--agent", "unix:/a"}, "--agent and --agent-control need each other"},
             {{"--json=1"}, "--json takes no value"},
             {{""}, "an empty file name"},
         }) {
        const auto parsed = ParseOptions(c.args);
        const auto* error = std::get_if<std::string>(&parsed);
        ASSERT_TRUE(error) << c.error;
        EXPECT_EQ(*error, c.error);
    }
}

}  // namespace
