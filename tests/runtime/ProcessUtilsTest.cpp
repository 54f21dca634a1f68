#include "runtime/ProcessUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/Holder.h"
#include "runtime/KxPropertyManager.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

TEST(ProcessUtils, FindsPathsInTheHomeFolder) {
    struct Case {
        const char *home, *path;
    };
    const LogCapture log;
    for (const Case& c : {Case{"/home/joe", "/home/joe/x"}, {"", ""}, {nullptr, ""}}) {
        const EnvironmentVariable home("HOME", c.home);
        EXPECT_EQ(ProcessUtils::GetHomePath("x"), c.path) << "and no path from the current folder";
    }
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(2, "Home folder not found"));
}

TEST(ProcessUtils, TellsSystemAndVersion) {
    utsname system;
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(ProcessUtils::GetOSText(), std::string(system.sysname) + ", " + system.release + ", " + system.version);
    EXPECT_TRUE(Matches(ProcessUtils::GetVersionText(),
                        R"(version=\d+\.\d+\.\d+ build-[^ ]+ [^ ]+ \(\d{4}-\d{1,2}-\d{1,2} \d{1,2}:\d\d:\d\d\))"))
        << ProcessUtils::GetVersionText();
}

TEST(KxPropertyManager, KeepsTextsByKey) {
    KxPropertyManager properties;
    std::string value = "untouched";
    EXPECT_FALSE(properties.Get("a", &value));
    EXPECT_EQ(value, "untouched");
    properties.Set("a", "1");
    properties.Set("A", "2");
    properties.Set("a", "3");
    EXPECT_EQ(properties.Count(), 2u);
    EXPECT_TRUE(properties.Get("a", &value) && properties.Get("A", nullptr));
    EXPECT_EQ(value, "3");
    EXPECT_TRUE(properties.Erase("A"));
    EXPECT_FALSE(properties.Erase("A"));
    properties.Clear();
    EXPECT_EQ(properties.Count(), 0u);
}

// A closed stream's descriptor is free again.
TEST(FileHolder, ClosesItsStreamWhenItGoesOrTakesAnother) {
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    int first = -1, second = -1;
    {
        FileHolder holder(std::fopen("/dev/null", "r"));
        first = fileno(holder.Get());
        std::FILE* const other = std::fopen("/dev/null", "r");
        second = fileno(other);
        holder.Reset(other);
        EXPECT_FALSE(isOpen(first));
        EXPECT_TRUE(isOpen(second));
    }
    EXPECT_FALSE(isOpen(second));
}

}  // namespace
