#include "logging/FileWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

namespace fs = std::filesystem;

constexpr uint64 kMB = 1 << 20;
constexpr uint64 kUnknown = ~uint64{0};  // free space that can't be told
const std::string kNameStart = "velmora-UsbRedirectionClient-0-" + std::to_string(getpid());
const std::string kStamp = R"(__\d{4}-\d\d-\d\d-\d\d-\d\d\.log)";

class FileWriterTest : public LoggingTest {
protected:
    FileWriterTest() {
        writer->SetFreeSpaceSource([this](const std::string& path, uint64* bytes) {
            EXPECT_EQ(path.rfind(folder.path, 0), 0u);
            *bytes = freeSpace;
            return freeSpace != kUnknown;
        });
    }
    ~FileWriterTest() override { LoggerManager::Shutdown(); }

    // A logger that writes on this thread, so that each step is over when the call is.
    void Start(int level = kLogInfo) {
        logger->SetLevel(level);
        writer->SetBuffering(false);
        ASSERT_TRUE(logger->Start());
    }
    void SetLimits(int sizeMB, int rolling) {
        writer->SetProperty("maxFileSizeMB", std::to_string(sizeMB));
        writer->SetProperty("maxRollingFiles", std::to_string(rolling));
    }
    // Writes lines until the current file has given way to another one.
    void FillFile() {
        const std::string line(64 * 1024, 'f');
        const std::string before = writer->GetCurrentPath();
        for (int i = 0; i < 20 && writer->GetCurrentPath() == before; ++i)
            Logger::Log("Fill()", kLogInfo, "%s", line.c_str());
        ASSERT_NE(writer->GetCurrentPath(), before);
    }
    std::string CurrentText() { return ReadText(writer->GetCurrentPath()); }
    std::string CurrentName() { return fs::path(writer->GetCurrentPath()).filename().string(); }
    std::string Property(const std::string& key) {
        std::string value;
        writer->GetProperty(key, value);
        return value;
    }
    // The name of the first file that is opened in the minute of that time.
    static std::string NameAt(time_t time) {
        char stamp[32];
        tm parts;
        std::strftime(stamp, sizeof stamp, "__%Y-%m-%d-%H-%M.log", localtime_r(&time, &parts));
        return kNameStart + stamp;
    }
    // Those of the files that may be opened next.
    std::vector<std::string> NextPaths() const {
        const time_t now = time(nullptr);
        return {folder.File(NameAt(now)), folder.File(NameAt(now + 60))};
    }
    // Whether lines are suspended with that much free space.
    bool Suspended(uint64 freeBytes) {
        freeSpace = freeBytes;
        Logger::Log("Check()", kLogError, "checks the disk");
        const size_t before = CurrentText().size();
        Logger::Log("Check()", kLogInfo, "INFO");
        Logger::Log("Check()", kLogError, "ERROR");
        const std::string text = CurrentText().substr(before);
        EXPECT_EQ(CountOf(text, ": ERROR\n"), 1u);
        return !Contains(text, ": INFO\n");
    }

    TempFolder folder;
    uint64 freeSpace = uint64{1} << 40;
    const RCPtr<Logger> logger{MakeLogger(kLogInfo, "UsbRedirectionClient")};
    const RCPtr<FileWriter> writer{AddFileWriter(logger, folder.path)};
};

TEST_F(FileWriterTest, FirstNamesFollowLevelStemAndRolling) {
    const std::tuple<std::string, std::string, int, int, std::string, std::string> cases[] = {
        {"Comp", "", kLogInfo, 4, "Comp", ""},       {"Comp", "own.stem", kLogInfo, 4, "own.stem", ""},
        {"", "", kLogInfo, 4, "default", ""},        {"Comp", "", kLogDebug, 1000, "Comp", "(1)"},
        {"Comp", "", kLogInfo, 0, "Comp", "(0001)"},
    };
    for (const auto& [component, filename, level, rolling, stem, mark] : cases) {
        TempFolder place;
        LoggerManager::Shutdown();
        const RCPtr<Logger> each = MakeLogger(level, component);
        const RCPtr<FileWriter> file = AddFileWriter(each, place.path);
        file->SetProperty("filename", filename);
        file->SetProperty("maxRollingFiles", std::to_string(rolling));
        ASSERT_TRUE(each->Start());
        ASSERT_EQ(place.Names().size(), 1u);
        const std::string start = "velmora-" + stem + "-0-" + std::to_string(getpid()) + mark;
        EXPECT_TRUE(Matches(place.Names()[0], Quoted(start) + kStamp)) << place.Names()[0];
        struct stat status;
        ASSERT_EQ(stat(file->GetCurrentPath().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0640u);
    }
}

TEST_F(FileWriterTest, AFileAtItsLimitIsRolledAndOnlyTheLastOnesAreKept) {
    SetLimits(1, 2);
    const time_t before = time(nullptr);
    Start();
    const std::string first = CurrentName();
    EXPECT_TRUE(first == NameAt(before) || first == NameAt(time(nullptr))) << first;
    LogCapture capture(kLogInfo);
    std::vector<std::string> names{first};
    for (int i = 2; i <= 5; ++i) {
        FillFile();
        names.push_back(CurrentName());
        EXPECT_EQ(names.back().rfind(kNameStart + "(" + std::to_string(i) + ")__", 0), 0u);
    }
    std::vector<std::string> kept{names[0], names[3], names[4]};
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(folder.Names(), kept);
    EXPECT_GE(fs::file_size(folder.File(names[3])), kMB);
    EXPECT_LT(fs::file_size(folder.File(names[3])), kMB + 70 * 1024);
    for (const int i : {1, 2}) EXPECT_TRUE(capture.Has(kLogInfo, "Deleted \"" + names[static_cast<size_t>(i)] + "\""));
}

TEST_F(FileWriterTest, WithoutALimitOfRolledFilesNothingIsRemoved) {
    SetLimits(1, 0);
    Start();
    std::string marks;
    for (int i = 0; i < 3; ++i) FillFile();
    for (const std::string& name : folder.Names()) marks += name.substr(name.find('('), 6);
    EXPECT_EQ(marks, "(0001)(0002)(0003)(0004)");
}

TEST_F(FileWriterTest, ALimitOfZeroNeverRolls) {
    SetLimits(0, 4);
    Start();
    const std::string line(1 << 20, 'x');
    for (int i = 0; i < 17; ++i) Logger::Log("Fill()", kLogInfo, "%s", line.c_str());
    EXPECT_EQ(folder.Names().size(), 1u);
    writer->SetProperty("maxFileSizeMB", "0xFFFFFFFF");  // 15 MB at INFO: looked up at each test
    Logger::Log("Fill()", kLogInfo, "short");
    EXPECT_EQ(folder.Names().size(), 2u);
}

TEST_F(FileWriterTest, AFileThatCantBeRemovedIsToldAndForgotten) {
    SetLimits(1, 1);
    Start();
    FillFile();
    const std::string second = writer->GetCurrentPath();
    const std::string name = CurrentName();
    fs::remove(second);
    fs::create_directory(second);  // stands in the way of the removal
    const LogCapture capture(kLogWarn);
    for (int i = 0; i < 2; ++i) FillFile();
    EXPECT_EQ(capture.Texts(kLogWarn),
              std::vector<std::string>{"Failed to delete \"" + name + "\" (errno=" + std::to_string(EISDIR) + ")"});
}

TEST_F(FileWriterTest, ReopeningANameThatIsThereBeginsWithABanner) {
    for (const std::string& path : NextPaths()) WriteText(path, "earlier\n");
    Start();
    const std::string stars(78, '*');
    const std::string banner = std::string(24, '*') + "   NEW LOG SESSION STARTING   " + std::string(24, '*');
    EXPECT_TRUE(CurrentText().starts_with("earlier\n\n" + stars + "\n" + banner + "\n" + stars + "\n\n2"))
        << CurrentText();
}

TEST_F(FileWriterTest, PropertiesAreKeptWithinTheirLimits) {
    struct Case {
        const char* key;
        const char* value;
        const char* result;
    };
    for (const Case& c : {Case{"MAXFILESIZEMB", "1024", "1024"},
                          {"maxFileSizeMB", "1025", "1024"},
                          {"maxFileSizeMB", "0", "0"},
                          {"maxFileSizeMB", "0x10", "16"},
                          {"maxFileSizeMB", "010", "8"},
                          {"maxFileSizeMB", "4294967295", "15"},
                          {"maxRollingFiles", "1001", "1000"},
                          {"maxRollingFiles", "0", "0"},
                          {"fileName", "stem", "stem"}}) {
        EXPECT_TRUE(writer->SetProperty(c.key, c.value));
        EXPECT_FALSE(writer->SetProperty(c.key, ""));
        EXPECT_EQ(Property(c.key), c.result) << c.key;
    }
    EXPECT_FALSE(writer->SetProperty("", "1"));
    std::string value;
    EXPECT_FALSE(writer->GetProperty("", value));
    EXPECT_TRUE(writer->SetProperty("unknown", "1") && writer->GetProperty("unknown", value));
    for (const auto& [level, size] :
         {std::pair{kLogWarn, "15"}, {kLogDebug, "50"}, {kLogTrace, "75"}, {kLogVerbose, "99"}, {kLogNever, "15"}}) {
        logger->SetLevel(level);
        EXPECT_EQ(Property("maxFileSizeMB"), size);
    }
    Start();
    EXPECT_FALSE(writer->SetProperty("filename", "late") || writer->SetProperty("folderPath", "/tmp"));
}

TEST_F(FileWriterTest, LowDiskSuspendsAllButImportantLinesUntilThereIsRoom) {
    Start();
    for (const auto& [free, suspended] : {std::pair{200 * kMB + 1, false},
                                          {200 * kMB, true},
                                          {200 * kMB + 1, true},
                                          {500 * kMB - 1, true},
                                          {kUnknown, true},
                                          {500 * kMB, false},
                                          {kUnknown, false},
                                          {201 * kMB, false},
                                          {1, true}}) {
        EXPECT_EQ(Suspended(free), suspended) << free;
    }
}

TEST_F(FileWriterTest, TheThresholdsKeepADistanceAndALoweredOneCountsAtOnce) {
    writer->SetProperty("diskThresholdLowMB", "480");
    Start();
    EXPECT_TRUE(Suspended(400 * kMB));
    EXPECT_TRUE(Suspended(530 * kMB - 1)) << "at least 50 MB above the low one";
    EXPECT_FALSE(Suspended(530 * kMB));
    EXPECT_TRUE(Suspended(480 * kMB));
    writer->SetProperty("diskThresholdLowMB", "460");
    EXPECT_TRUE(Suspended(459 * kMB)) << "still below";
    EXPECT_TRUE(Suspended(470 * kMB)) << "the lowered threshold counted once";
    writer->SetProperty("diskThresholdLowMB", "455");
    EXPECT_FALSE(Suspended(470 * kMB));
}

TEST_F(FileWriterTest, TheDiskNoticesStandApartWithoutLevelAndName) {
    Start();
    freeSpace = 150 * kMB;
    Logger::Log("Check()", kLogInfo, "low");
    freeSpace = 600 * kMB;
    Logger::Log("Check()", kLogError, "enough");
    Logger::Log("Check()", kLogInfo, "after");
    const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]+> )" + Quoted(ProcessText()) + " ";
    const std::string notices =
        ": low\n\n" + stamp + R"(\*{7} Free disk space is 150\.0MB - Logging suspended \*{7})" + "\n[^\n]*: enough\n" +
        stamp + R"(\*{7} Free disk space is 600\.0MB - Logging resumed after (\d+ms|\d+\.\d{3}s) \*{7})" +
        "\n\n[^\n]*: after\n$";
    EXPECT_TRUE(Finds(CurrentText(), notices)) << CurrentText();
}

TEST_F(FileWriterTest, LinesLostToAFailedRollAreReportedOnceAFileOpensAgain) {
    SetLimits(1, 1);
    Start();
    const std::string first = CurrentName();
    FillFile();
    const std::string hidden = folder.path + "-hidden";
    fs::rename(folder.path, hidden);
    const std::string line(1200 * 1024, 'x');
    KxElapsedTimer timer;
    Logger::Log("Roll()", kLogInfo, "%s", line.c_str());  // goes to the open file; the roll behind it fails
    Logger::Log("Lost()", kLogInfo, "one");
    fs::rename(hidden, folder.path);
    // A try a second at most: within it the folder is back in vain.
    int written = 1;
    while (!fs::exists(writer->GetCurrentPath()) && timer.GetTimerMS(KxTimer::Mode::Read, 0) < 20000) {
        Logger::Log("Again()", kLogInfo, "%d", written++);
        std::this_thread::yield();
    }
    EXPECT_GE(timer.GetTimerMS(KxTimer::Mode::Read, 0), 1000u);
    const std::string text = CurrentText();
    std::vector<std::string> match;
    ASSERT_TRUE(Finds(text, "\n\\*{7} Dropped (\\d+) messages \\*{7}\n\n", &match)) << text;
    EXPECT_EQ(std::stoi(match[1]) + static_cast<int>(CountOf(text, " I Again(): ")), written)
        << "none is unaccounted for";
    EXPECT_TRUE(Contains(text, " I Again(): " + std::to_string(written - 1) + "\n"));
    std::vector<std::string> kept{first, CurrentName()};
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(folder.Names(), kept);
}

TEST_F(FileWriterTest, LinksAreNotFollowedAndOtherThanFilesNotOpened) {
    const std::string target = folder.Write("target", "not a log\n");
    const std::function<void(const std::string&)> obstacles[] = {
        [&](const std::string& name) { fs::create_symlink(target, name); },
        [&](const std::string& name) { fs::create_symlink(folder.File("nowhere"), name); },
        [&](const std::string& name) { ASSERT_EQ(mkfifo(name.c_str(), 0600), 0); },
        [&](const std::string& name) { fs::create_directory(name); },
    };
    for (const auto& put : obstacles) {
        LoggerManager::Shutdown();
        const RCPtr<Logger> each = MakeLogger(kLogInfo, "UsbRedirectionClient");
        AddFileWriter(each, folder.path);
        const std::vector<std::string> paths = NextPaths();
        for (const std::string& path : paths) put(path);
        EXPECT_FALSE(each->Start());
        for (const std::string& path : paths) fs::remove(path);
    }
    EXPECT_EQ(folder.Names(), std::vector<std::string>{"target"});
    EXPECT_EQ(ReadText(target), "not a log\n");
}

TEST_F(FileWriterTest, AForeignUsersLinkIsNoFolder) {
    if (geteuid() != 0) GTEST_SKIP() << "needs the right to give a link away";
    const std::string link = folder.path + "-link";
    fs::create_directory_symlink(folder.path, link);
    ASSERT_EQ(lchown(link.c_str(), 12345, 12345), 0);
    for (const char* end : {"", "//", "/./"}) {
        writer->SetProperty("folderPath", link + end);
        EXPECT_FALSE(logger->Start()) << end;
    }
    ASSERT_EQ(lchown(link.c_str(), geteuid(), getegid()), 0);
    writer->SetProperty("folderPath", link + "/");
    EXPECT_TRUE(logger->Start()) << "one's own is";
    LoggerManager::Shutdown();
    fs::remove(link);
}

TEST_F(FileWriterTest, APassRollsAtItsEndAndTheLastOneStartsNoThreadAgain) {
    SetLimits(1, 4);
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    const std::string line(600 * 1024, 'e');
    for (int i = 0; i < 4; ++i) Logger::Log("End()", kLogInfo, "%s", line.c_str());
    LoggerManager::Shutdown();
    const std::vector<std::string> names = folder.Names();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(
        Contains(ReadText(folder.File(names[0])) + ReadText(folder.File(names[1])), "*** LOG FILE COMPLETE ***"));
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        EXPECT_FALSE(Contains(ReadText(entry.path().string() + "/comm"), "KxPoll-Logger"));
    }
}

}  // namespace
