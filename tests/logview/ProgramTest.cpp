// The program itself: exit status, messages, and following until SIGINT.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/e2e/Program.h"
#include "tests/logview/ViewSupport.h"

namespace {

TEST(LogView, EndsWithAStatusAndOneLineThatSaysWhy) {
    const TempFolder folder;
    const std::string one = Entry("I", "f()", "one"), two = Entry("E", "f()", "two");
    const std::string early = "2026-11-17 01:00:00.000 <00000001> [10E1] I f(): early";
    const std::string log = folder.Write("a.log", one + two), absent = folder.File("absent");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    };
    for (const Case& c :
         {Case{{log}, 0, one + two, ""},
          {{"--level", "WARN", log}, 0, two, ""},
          {{"--json", "--text", "two", log},
           0,
           "{\"time\":\"2026-11-17 23:22:01.123\",\"thread\":\"00000001\",\"process\":4321,\"level\":\"ERROR\","
           "\"function\":\"f()\",\"text\":\"two\"}\n",
           ""},
          {{log, folder.Write("b.log", early)}, 0, early + "\n" + one + two, ""},
          {{log, absent}, 2, "", "log-view: cannot read " + absent + ": No such file or directory\n"},
          {{"-f", folder.path}, 2, "", "log-view: " + folder.path + " is a directory\n"},
          {{"--bad", log}, 2, "", "log-view: unknown option --bad (--help tells what there is)\n"},
          {{}, 2, "", "log-view: no log file named (--help tells what there is)\n"}}) {
        const ProgramResult result = RunProgram("log-view", c.args);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.err, c.err);
    }
    EXPECT_TRUE(RunProgram("log-view", {"--help"}).out.starts_with("Usage: log-view"));
    EXPECT_TRUE(RunProgram("log-view", {"--version"}).out.starts_with("log-view "));
}

TEST(LogView, FollowsSeveralLogsUntilInterrupted) {
    const TempFolder folder;
    const auto line = [](const char* text) { return Entry("I", "f()", text); };
    const std::string first = folder.Write("velmora-A-0-1__2026-11-17-23-22.log", line("1"));
    const std::string second = folder.Write("velmora-A-0-1(2)__2026-11-17-23-22.log", line("2"));
    const std::string absent = folder.File("absent");
    Program view("log-view", {"-f", first, second, absent});
    EXPECT_EQ(view.ReadUntil(line("2")), line("1") + line("2"));
    const std::string third = folder.Write("velmora-A-0-1(3)__2026-11-17-23-22.log", line("3"));
    EXPECT_EQ(view.ReadUntil(line("3")), line("3"));
    folder.Write("absent", line("4"));
    EXPECT_EQ(view.ReadUntil(line("4")), line("4"));
    Append(third, line("5") + "no line feed");
    EXPECT_EQ(view.ReadUntil(line("5")), line("5"));
    kill(view.Pid(), SIGINT);
    const ProgramResult result = view.Finish();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "no line feed\n");
    EXPECT_EQ(result.err, "log-view: waiting for " + absent + "\n");
}

}  // namespace
