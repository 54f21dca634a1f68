// The program itself: exit status, messages, and following until SIGINT.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "tests/logview/ViewSupport.h"

namespace {

constexpr int kLimitMS = 20000;

// log-view under way, with standard error in the same stream as its output.
class ViewProcess {
public:
    explicit ViewProcess(const std::vector<std::string>& args) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        const std::string path = std::string(BUILD_FOLDER) + "/bin/log-view";
        std::vector<char*> argv = {const_cast<char*>(path.c_str())};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        if (posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        fd = ends[0];
    }
    ViewProcess(const ViewProcess&) = delete;
    ViewProcess& operator=(const ViewProcess&) = delete;
    ~ViewProcess() {
        if (fd >= 0) close(fd);
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // Reads until the output so far ends with text.
    bool WaitFor(const std::string& text) {
        while (!output.ends_with(text)) {
            if (!ReadSome()) return false;
        }
        return true;
    }

    // Exit status, with all output read; -1 if a signal ended it.
    int Finish() {
        while (ReadSome()) {
        }
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void Interrupt() const { kill(pid, SIGINT); }

    std::string output;

private:
    bool ReadSome() {
        pollfd wait = {fd, POLLIN, 0};
        char bytes[4096];
        if (poll(&wait, 1, kLimitMS) <= 0) return false;
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got > 0) output.append(bytes, static_cast<size_t>(got));
        return got > 0;
    }

    pid_t pid = -1;
    int fd = -1;
};

TEST(LogView, EndsWithAStatusAndOneLineThatSaysWhy) {
    const TempFolder folder;
    const std::string one = Entry("I", "f()", "one"), two = Entry("E", "f()", "two");
    const std::string log = folder.Write("a.log", one + two), absent = folder.Path("absent");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string output;
    };
    for (const Case& c :
         {Case{{log}, 0, one + two},
          {{"--level", "WARN", log}, 0, two},
          {{"--json", "--text", "two", log},
           0,
           "{\"time\":\"2026-11-17 23:22:01.123\",\"thread\":\"00000001\",\"process\":4321,\"level\":\"ERROR\","
           "\"function\":\"f()\",\"text\":\"two\"}\n"},
          {{absent}, 2, "log-view: cannot read " + absent + ": No such file or directory\n"},
          {{log, absent}, 2, "log-view: cannot read " + absent + ": No such file or directory\n"},
          {{"-f", folder.Path("")}, 2, "log-view: " + folder.Path("") + " is a directory\n"},
          {{"--bad", log}, 2, "log-view: unknown option --bad (--help tells what there is)\n"},
          {{}, 2, "log-view: no log file named (--help tells what there is)\n"}}) {
        ViewProcess view(c.args);
        EXPECT_EQ(view.Finish(), c.status);
        EXPECT_EQ(view.output, c.output);
    }
    for (const char* option : {"--help", "--version"}) {
        ViewProcess view({option});
        EXPECT_EQ(view.Finish(), 0);
        EXPECT_NE(view.output.find("log-view"), std::string::npos);
    }
}

TEST(LogView, PutsSeveralFilesInOrderAndApart) {
    const TempFolder folder;
    const std::string early = "2026-11-17 01:00:00.000 <00000001> [10E1] I f(): early";
    const std::string late = Entry("I", "f()", "late");
    ViewProcess view({folder.Write("a.log", late), folder.Write("b.log", early)});
    EXPECT_EQ(view.Finish(), 0);
    EXPECT_EQ(view.output, early + "\n" + late);
}

TEST(LogView, FollowsSeveralLogsUntilInterrupted) {
    const TempFolder folder;
    const std::string first = "velmora-A-0-1__2026-11-17-23-22.log", second = "velmora-A-0-1(2)__2026-11-17-23-22.log";
    const std::string third = "velmora-A-0-1(3)__2026-11-17-23-22.log";
    const auto line = [](const char* text) { return Entry("I", "f()", text); };
    folder.Write(first, line("1"));
    folder.Write(second, line("2"));
    ViewProcess view({"-f", folder.Path(first), folder.Path(second), folder.Path("absent")});
    EXPECT_TRUE(view.WaitFor("log-view: waiting for " + folder.Path("absent") + "\n" + line("1") + line("2")));
    folder.Write(third, line("3"));
    EXPECT_TRUE(view.WaitFor(line("2") + line("3")));
    folder.Write("absent", line("4"));
    EXPECT_TRUE(view.WaitFor(line("3") + line("4")));
    folder.Append(third, line("5") + "no line feed");
    EXPECT_TRUE(view.WaitFor(line("4") + line("5")));
    view.Interrupt();
    EXPECT_EQ(view.Finish(), 0);
    EXPECT_TRUE(view.output.ends_with(line("5") + "no line feed\n")) << view.output;
}

}  // namespace
