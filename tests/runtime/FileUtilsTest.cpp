#include "runtime/FileUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "runtime/StringUtils.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// Each test has a folder of its own.
class FileUtilsTest : public testing::Test {
protected:
    FileUtilsTest() {
        char pattern[] = "/tmp/fileutils-XXXXXX";
        folder = mkdtemp(pattern);
    }
    ~FileUtilsTest() override { fs::remove_all(folder); }

    std::string Path(const std::string& name) const { return folder + "/" + name; }

    std::string Make(const std::string& name, const std::string& content) const {
        std::ofstream(Path(name)) << content;
        return Path(name);
    }
    static std::string Content(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static mode_t Mode(const std::string& path) {
        struct stat status {};
        stat(path.c_str(), &status);
        return status.st_mode & 07777;
    }

    std::string folder;
};

TEST_F(FileUtilsTest, TellsKindsApart) {
    Make("file", "x");
    fs::create_symlink("file", Path("link"));
    fs::create_symlink("nothing", Path("dangling"));
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    struct Case {
        const char* name;
        bool exists, isFile, isFolder;
    };
    for (const Case& c : {Case{"file", true, true, false},
                          {"link", true, true, false},
                          {"", true, false, true},
                          {"fifo", true, false, false},
                          {"dangling", false, false, false},
                          {"nothing", false, false, false}}) {
        const std::string path = Path(c.name);
        EXPECT_EQ(FileUtils::FileExists(path), c.exists) << c.name;
        EXPECT_EQ(FileUtils::IsFile(path), c.isFile) << c.name;
        EXPECT_EQ(FileUtils::IsFolder(path), c.isFolder) << c.name;
        EXPECT_EQ(GetFileAttributes(path.c_str(), path.size() + 1, 2), c.isFolder) << c.name;
    }
    EXPECT_FALSE(GetFileAttributes(folder.c_str(), folder.size() + 1, 3)) << "no such kind";
    EXPECT_FALSE(GetFileAttributes(nullptr, 1, 0));
}

TEST_F(FileUtilsTest, RefusesNamesOf255BytesAndMore) {
    const LogCapture log;
    const std::string padding(255 - folder.size() - 1, '/');  // any number of slashes counts as one
    const std::string longest = folder + padding.substr(1) + "f", tooLong = folder + padding + "f";
    Make("f", "");
    ASSERT_EQ(longest.size(), 254u);
    EXPECT_TRUE(FileUtils::IsFile(longest));
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_FALSE(FileUtils::IsFile(tooLong));
    EXPECT_FALSE(FileUtils::FileExists(tooLong));
    EXPECT_EQ(log.Texts(kLogError), Texts(2, "File Name too long. GetFileAttributes Failed.\n"));
}

TEST_F(FileUtilsTest, ReadsSizeTimeAndFreeSpace) {
    const std::string path = Make("sparse", "");
    fs::resize_file(path, 5'000'000'000);  // beyond 32 bits
    const timespec times[2] = {{1, 0}, {1'234'567'890, 999'999'999}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    struct statvfs space;
    ASSERT_EQ(statvfs(folder.c_str(), &space), 0);
    uint64 size = 7, bytes = 7;
    time_t modified = 7;
    EXPECT_FALSE(FileUtils::GetFileSize(Path("nothing"), &size));
    EXPECT_FALSE(FileUtils::GetModifiedTime(Path("nothing"), &modified));
    EXPECT_FALSE(FileUtils::GetFreeSpace(Path("nothing"), &bytes));
    EXPECT_TRUE(size == 7 && modified == 7 && bytes == 7) << "untouched";

    EXPECT_TRUE(FileUtils::GetFileSize(path, &size));
    EXPECT_EQ(size, 5'000'000'000u);
    EXPECT_TRUE(FileUtils::GetModifiedTime(path, &modified));
    EXPECT_EQ(modified, 1'234'567'890);
    EXPECT_TRUE(FileUtils::GetFreeSpace(folder, &bytes));
    EXPECT_EQ(bytes % space.f_frsize, 0u);
    EXPECT_LE(bytes, static_cast<uint64>(space.f_blocks) * space.f_frsize);
}

TEST_F(FileUtilsTest, CreatesAFileWithItsModeAndTruncatesOnlyIfAsked) {
    const mode_t mask = umask(077);
    EXPECT_TRUE(FileUtils::CreateEmptyFile(Path("new"), false));
    umask(mask);
    EXPECT_EQ(Mode(Path("new")), 0640u) << "whatever the mode mask says";
    const std::string old = Make("old", "content");
    ASSERT_EQ(chmod(old.c_str(), 0666), 0);
    EXPECT_TRUE(FileUtils::CreateEmptyFile(old, false));
    EXPECT_EQ(Mode(old), 0640u);
    EXPECT_EQ(Content(old), "content");
    EXPECT_TRUE(FileUtils::CreateEmptyFile(old, true));
    EXPECT_EQ(Content(old), "");
    EXPECT_FALSE(FileUtils::CreateEmptyFile(Path("missing/file"), false));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileUtilsTest, CreatesAFolderThatIsOpenToAll) {
    const LogCapture log;
    const std::string failed = "Error in creating Log Directory - ";
    const mode_t mask = umask(027);
    EXPECT_TRUE(FileUtils::CreateFolder(Path("new")));
    EXPECT_EQ(umask(mask), 027u) << "the mode mask is put back";
    EXPECT_EQ(Mode(Path("new")), 0777u);
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_TRUE(FileUtils::CreateFolder(Path("new"))) << "it is there";
    EXPECT_FALSE(FileUtils::CreateFolder(Path("missing/below")));
    EXPECT_EQ(log.Texts(kLogError), (Texts{failed + "File exists \n", failed + "No such file or directory \n"}));
}

// Setting and restoring the process's mode mask isn't one step: done by two threads at once it could stay at 0.
TEST_F(FileUtilsTest, LeavesTheModeMaskAloneWhenManyThreadsCreateFolders) {
    const mode_t mask = umask(022);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_TRUE(FileUtils::CreateFolder(Path(std::to_string(t) + "-" + std::to_string(i))));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(umask(mask), 022u);
}

TEST_F(FileUtilsTest, DeletesAFileAndCallsAMissingOneDeleted) {
    int error = -1;
    const std::string path = Make("file", "");
    EXPECT_TRUE(FileUtils::DeleteFile(path, &error));
    EXPECT_EQ(error, 0);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(FileUtils::DeleteFile(path, &error));
    EXPECT_EQ(error, ENOENT);
    EXPECT_FALSE(FileUtils::DeleteFile(folder, nullptr)) << "no file";
}

TEST_F(FileUtilsTest, FindsTheTemporaryFolderOfTheUser) {
    struct Case {
        const char *user, *tmpdir, *tmp, *temp;
        std::string result;
    };
    for (const char* name : {"a", "b", "c"}) fs::create_directory(Path(name));
    const std::string a = Path("a"), b = Path("b"), c = Path("c");
    const LogCapture log;
    for (const Case& k : {Case{"joe", a.c_str(), b.c_str(), c.c_str(), a + "/corvex-joe"},
                          {"joe", nullptr, b.c_str(), c.c_str(), b + "/corvex-joe"},
                          {"joe", "", "", c.c_str(), c + "/corvex-joe"},
                          {nullptr, a.c_str(), nullptr, nullptr, a + "/corvex-default"},
                          {"nobody-at-all", nullptr, nullptr, nullptr, "/tmp/corvex-nobody-at-all"}}) {
        const EnvironmentVariable user("USER", k.user), tmpdir("TMPDIR", k.tmpdir);
        const EnvironmentVariable tmp("TMP", k.tmp), temp("TEMP", k.temp);
        std::string path;
        EXPECT_TRUE(FileUtils::GetKestorUserTempPath(path));
        EXPECT_EQ(path, k.result);
        EXPECT_EQ(rmdir(path.c_str()), 0) << "it was made";
    }
    ASSERT_EQ(log.Texts(kLogError), Texts{"Unable to read $USER variable. Use username as 'default'.\n"});
    EXPECT_EQ(StringUtils::GetFunctionName(log.Lines()[0].function.c_str()), "FileUtils::GetKestorUserTempPath()");
}

TEST_F(FileUtilsTest, RefusesATemporaryPathOf1024BytesOrOneThatCantBeMade) {
    std::string deep = folder;
    while (deep.size() < 1023 - 8 - 200) fs::create_directory(deep += "/" + std::string(199, 'd'));
    const std::string longest(1023 - deep.size() - 8, 'u'), file = Make("file", "");
    struct Case {
        std::string tmpdir, user, result;
    };
    for (const Case& c :
         {Case{deep, longest, deep + "/corvex-" + longest}, {deep, longest + "u", ""}, {file, "u", ""}}) {
        const EnvironmentVariable tmpdir("TMPDIR", c.tmpdir.c_str()), user("USER", c.user.c_str());
        std::string path = "untouched";
        EXPECT_EQ(FileUtils::GetKestorUserTempPath(path), !c.result.empty());
        EXPECT_EQ(path, c.result.empty() ? "untouched" : c.result);
    }
}

TEST(FilePaths, AreJoinedByOneSlashAndEndInTheirBaseName) {
    struct Case {
        const char *dir, *name, *joined;
    };
    for (const Case& c : {Case{"", "name", "name"},
                          {"dir", "name", "dir/name"},
                          {"dir/", "name", "dir/name"},
                          {"/", "a.log", "/a.log"},
                          {"dir", "", "dir/"},
                          {"", "", ""}}) {
        EXPECT_EQ(FileUtils::JoinPath(c.dir, c.name), c.joined);
        EXPECT_EQ(FileUtils::GetBaseName(c.joined), c.name);
    }
}

TEST_F(FileUtilsTest, StreamWritesFlushesAndTellsItsPosition) {
    const std::string path = Make("file", "before ");
    FileUtils::KxFile file(path);
    uint64 size = 0;
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 7u);
    ASSERT_TRUE(file.Open("a", false));
    ASSERT_TRUE(file.SetAbsPath(Path("missing")));
    EXPECT_FALSE(file.Open("w", false)) << "the stream stays open";
    EXPECT_TRUE(file.Write("100% %s"));
    EXPECT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 14u) << "the position counts what isn't flushed";
    EXPECT_EQ(Content(path), "before ");
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(Content(path), "before 100% %s");
    EXPECT_TRUE(file.Write(" end"));
    ASSERT_TRUE(file.SetAbsPath(path));
    ASSERT_TRUE(file.Open("r", false));
    EXPECT_EQ(Content(path), "before 100% %s end") << "the earlier stream was closed";
    EXPECT_FALSE(file.Write("x")) << "opened for reading";
    EXPECT_FALSE(file.Write(nullptr));
    EXPECT_FALSE(file.Open("no mode", false) || file.Flush()) << "no stream is left";
    EXPECT_TRUE(file.Close());
}

TEST_F(FileUtilsTest, StreamRefusesToWorkWithoutAFile) {
    const std::string noPath = "The abolute path of the file is not set.\n";
    const LogCapture log;
    FileUtils::KxFile file;
    EXPECT_FALSE(file.Open("r", false));
    EXPECT_FALSE(file.SetAbsPath(""));
    EXPECT_FALSE(file.Exists() || file.GetSize(nullptr) || file.Write("x") || file.Flush());
    EXPECT_TRUE(file.SetAbsPath(Path("missing")));
    EXPECT_FALSE(file.Open("w", false));
    EXPECT_FALSE(file.Exists() || file.GetSize(nullptr)) << "Open makes no file";
    EXPECT_TRUE(file.SetAbsPath(folder));
    EXPECT_TRUE(file.Exists());
    EXPECT_FALSE(file.Open("r", false)) << "a folder is no file";
    EXPECT_EQ(log.Texts(kLogDebug),
              (Texts{noPath, noPath, Path("missing") + " file does not exist.\n", folder + " file does not exist.\n"}));
}

}  // namespace
