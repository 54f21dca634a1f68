#include "runtime/ProcessUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "runtime/Holder.h"
#include "runtime/KxPropertyManager.h"
#include "tests/support/LogCapture.h"

namespace {

TEST(ProcessUtils, FindsPathsInTheHomeFolder) {
    const char* const home = std::getenv("HOME");
    const std::string saved = home ? home : "";
    const LogCapture log;
    setenv("HOME", "/home/joe", 1);
    EXPECT_EQ(ProcessUtils::GetHomePath(".corvex/config"), "/home/joe/.corvex/config");
    setenv("HOME", "/home/joe/", 1);
    EXPECT_EQ(ProcessUtils::GetHomePath("x"), "/home/joe/x");
    EXPECT_TRUE(log.Lines().empty());
    setenv("HOME", "", 1);
    EXPECT_EQ(ProcessUtils::GetHomePath("x"), "") << "not a path from the current folder";
    unsetenv("HOME");
    EXPECT_EQ(ProcessUtils::GetHomePath("x"), "");
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(2, "Home folder not found"));
    if (home) setenv("HOME", saved.c_str(), 1);
}

TEST(ProcessUtils, TellsSystemAndVersion) {
    utsname system;
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(ProcessUtils::GetOSText(), std::string(system.sysname) + ", " + system.release + ", " + system.version);
    const std::string version = ProcessUtils::GetVersionText();
    int numbers[9], end = 0;
    char build[16], revision[48];
    EXPECT_EQ(std::sscanf(version.c_str(), "version=%d.%d.%d build-%15s %47s (%d-%d-%d %d:%d:%d)%n", &numbers[0],
                          &numbers[1], &numbers[2], build, revision, &numbers[3], &numbers[4], &numbers[5], &numbers[6],
                          &numbers[7], &numbers[8], &end),
              11)
        << version;
    EXPECT_EQ(static_cast<size_t>(end), version.size()) << version;
}

TEST(KxPropertyManager, KeepsTextsByKey) {
    KxPropertyManager properties;
    std::string value = "untouched";
    EXPECT_FALSE(properties.Get("a", &value));
    EXPECT_EQ(value, "untouched");
    properties.Set("a", "1");
    properties.Set("A", "2");
    properties.Set("", "empty key");
    properties.Set("a", "3");
    EXPECT_EQ(properties.Count(), 3u);
    for (const auto& [key, text] : std::map<std::string, std::string>{{"a", "3"}, {"A", "2"}, {"", "empty key"}}) {
        EXPECT_TRUE(properties.Get(key, &value));
        EXPECT_EQ(value, text);
        EXPECT_TRUE(properties.Get(key, nullptr));
    }
    EXPECT_TRUE(properties.Erase("A"));
    EXPECT_FALSE(properties.Erase("A"));
    EXPECT_FALSE(properties.Get("A", nullptr));
    properties.Clear();
    EXPECT_EQ(properties.Count(), 0u);
    EXPECT_FALSE(properties.Get("a", nullptr));
}

// A closed stream's descriptor is free again.
TEST(FileHolder, ClosesItsStreamWhenItGoesOrTakesAnother) {
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    int first = -1, second = -1;
    {
        FileHolder holder(std::fopen("/dev/null", "r"));
        ASSERT_TRUE(holder.IsValid());
        first = fileno(holder.Get());
        std::FILE* const other = std::fopen("/dev/null", "r");
        second = fileno(other);
        holder.Reset(other);
        EXPECT_FALSE(isOpen(first));
        EXPECT_TRUE(isOpen(second));
    }
    EXPECT_FALSE(isOpen(second));
    FileHolder none;
    EXPECT_FALSE(none.IsValid());
}

}  // namespace
