#include "tools/logview/LogFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/logview/ViewSupport.h"

namespace {

TEST(LogFiles, ReadsTheNamesThatTheWriterGives) {
    for (const auto& [name, process, number] :
         {std::tuple{"velmora-Usb-0-4321__2026-11-17-23-22.log", "velmora-Usb-0-4321", 1u},
          {"velmora-Usb-0-4321(2)__2026-11-17-23-22.log", "velmora-Usb-0-4321", 2u},
          {"velmora-a-0-7__x-0-4321(0017)__2026-11-17-23-22.log", "velmora-a-0-7__x-0-4321", 17u}}) {
        const auto parsed = ParseLogFileName(name);
        ASSERT_TRUE(parsed) << name;
        EXPECT_EQ(parsed->process, process);
        EXPECT_EQ(parsed->number, number);
        EXPECT_EQ(parsed->stamp, "2026-11-17-23-22");
    }
    for (const char* const name :
         {"velmora-Usb-0-4321()__2026-11-17-23-22.log", "velmora-Usb-0-4321(99999999999)__2026-11-17-23-22.log",
          "velmora-Usb-0-__2026-11-17-23-22.log", "velmora-Usb-1-4321__2026-11-17-23-22.log",
          "velmora-Usb-0-4321__2026-11-17-23-2.log", "velmora-Usb-0-4321__2026-11-17-23-22.log.gz", "other.log"}) {
        EXPECT_FALSE(ParseLogFileName(name)) << name;
    }
}

// Files with the times at which they were last written.
class NextLogFile : public testing::Test {
protected:
    void Make(const std::string& name, time_t written) {
        const std::string path = folder.Write(name, "");
        const timespec times[] = {{written, 0}, {written, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
    std::string After(const std::string& name, time_t written) {
        const auto next = FindNextLogFile(folder.File(name), {written, 0});
        return next ? next->substr(next->rfind('/') + 1) : "";
    }
    TempFolder folder;
};

TEST_F(NextLogFile, IsTheOneThatTheSameProcessWroteNext) {
    Make("velmora-A-0-1__2026-01-01-10-00.log", 100);
    Make("velmora-A-0-1(4)__2026-01-01-10-05.log", 200);
    Make("velmora-A-0-1(5)__2026-01-01-10-05.log", 300);
    Make("velmora-A-0-12(2)__2026-01-01-10-06.log", 150);
    Make("velmora-AB-0-1(2)__2026-01-01-10-06.log", 150);
    EXPECT_EQ(After("velmora-A-0-1__2026-01-01-10-00.log", 100), "velmora-A-0-1(4)__2026-01-01-10-05.log");
    EXPECT_EQ(After("velmora-A-0-1(4)__2026-01-01-10-05.log", 200), "velmora-A-0-1(5)__2026-01-01-10-05.log");
    EXPECT_EQ(After("velmora-A-0-1(5)__2026-01-01-10-05.log", 300), "");
    EXPECT_EQ(After("other.log", 0), "");
}

TEST_F(NextLogFile, MayBeThatOfANewSessionOfTheProcessButNotOfAnOldOne) {
    Make("velmora-A-0-1(3)__2026-01-01-10-00.log", 100);
    Make("velmora-A-0-1(1)__2026-01-01-11-00.log", 200);
    EXPECT_EQ(After("velmora-A-0-1(3)__2026-01-01-10-00.log", 100), "velmora-A-0-1(1)__2026-01-01-11-00.log");
    EXPECT_EQ(After("velmora-A-0-1(1)__2026-01-01-11-00.log", 200), "");
}

TEST(LogFiles, AreOrderedByTheirFirstEntries) {
    const TempFolder folder;
    const auto entry = [](const std::string& stamp) { return stamp + " <00000001> [10E1] I f(): x\n"; };
    std::vector<std::string> paths = {
        folder.File("absent"),
        folder.Write("empty", ""),
        folder.Write("late", entry("2026-11-17 23:00:00.000")),
        folder.Write("banner", kBannerLines + entry("2026-11-17 21:00:00.000") + entry("2020-01-01 00:00:00.000")),
        folder.Write("nolog", "just text\n"),
        folder.Write("far", std::string(10000, 'x') + "\n" + entry("2026-11-17 22:00:00.000")),
        folder.Write("utc", entry("2026-11-14T00:00:00.000Z")),
        folder.Write("cut", "2026-11-15 00:00:00.000 <00000001> [10E1] I f(): x"),
    };
    SortByFirstStamp(paths);
    std::vector<std::string> names;
    for (const std::string& path : paths) names.push_back(path.substr(path.rfind('/') + 1));
    EXPECT_EQ(names, (std::vector<std::string>{"utc", "cut", "banner", "far", "late", "absent", "empty", "nolog"}));
}

}  // namespace
