#include "logging/FileWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "runtime/StringUtils.h"
#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

namespace fs = std::filesystem;

constexpr uint64 kMB = 1 << 20;
constexpr uint64 kUnknown = ~uint64{0};  // free space that can't be told
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
    static std::string NameStart(const std::string& stem) {
        return "velmora-" + stem + "-0-" + std::to_string(getpid());
    }

    TempFolder folder;
    uint64 freeSpace = uint64{1} << 40;
    const RCPtr<Logger> logger{MakeLogger(kLogInfo, "UsbRedirectionClient")};
    const RCPtr<FileWriter> writer{AddFileWriter(logger, folder.path)};
};

TEST_F(FileWriterTest, FirstNamesFollowLevelStemAndRolling) {
    struct Case {
        const char* component;
        const char* filename;
        int level;
        int rolling;
        const char* nameStart;
    };
    for (const Case& c : {Case{"Comp", "", kLogInfo, 4, "Comp"},
                          {"Comp", "own.stem", kLogInfo, 4, "own.stem"},
                          {"", "", kLogInfo, 4, "default"},
                          {"Comp", "", kLogDebug, 4, "Comp(1)"},
                          {"Comp", "", kLogVerbose, 1000, "Comp(1)"},
                          {"Comp", "", kLogInfo, 0, "Comp(0001)"}}) {
        TempFolder place;
        LoggerManager::Shutdown();
        const RCPtr<Logger> each = LoggerManager::CreateLogger("names", c.component, true);
        each->SetLevel(c.level);
        const RCPtr<FileWriter> file = AddFileWriter(each, place.path);
        file->SetProperty("filename", c.filename);
        file->SetProperty("maxRollingFiles", std::to_string(c.rolling));
        ASSERT_TRUE(each->Start());
        ASSERT_EQ(place.Names().size(), 1u);
        std::string expected = std::string("velmora-") + c.nameStart;
        const size_t mark = expected.find('(');
        const std::string process = "-0-" + std::to_string(getpid());
        expected.insert(mark == std::string::npos ? expected.size() : mark, process);
        EXPECT_TRUE(Matches(place.Names()[0], Quoted(expected) + kStamp)) << place.Names()[0];
        struct stat status;
        ASSERT_EQ(stat(file->GetCurrentPath().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0640u);
    }
}

TEST_F(FileWriterTest, TheStampIsTheLocalMinute) {
    const std::string before = StringUtils::GetTimestamp(false);
    Start();
    const std::string after = StringUtils::GetTimestamp(false);
    const auto stampOf = [](std::string text) {
        text[10] = text[13] = '-';
        return "__" + text.substr(0, 16) + ".log";
    };
    const std::string name = CurrentName();
    const std::string stamp = name.substr(name.find("__"));
    EXPECT_TRUE(stamp == stampOf(before) || stamp == stampOf(after)) << stamp;
}

TEST_F(FileWriterTest, AFileAtItsLimitIsRolledAndOnlyTheLastOnesAreKept) {
    SetLimits(1, 2);
    Start();
    const std::string first = CurrentName();
    LogCapture capture(kLogInfo);
    std::vector<std::string> names{first};
    for (int i = 2; i <= 5; ++i) {
        FillFile();
        names.push_back(CurrentName());
        EXPECT_EQ(names.back().rfind(NameStart("UsbRedirectionClient") + "(" + std::to_string(i) + ")__", 0), 0u);
    }
    std::vector<std::string> kept{names[0], names[3], names[4]};
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(folder.Names(), kept);
    EXPECT_GE(fs::file_size(folder.File(names[3])), kMB);
    EXPECT_LT(fs::file_size(folder.File(names[3])), kMB + 70 * 1024);
    EXPECT_TRUE(capture.Has(kLogInfo, "Deleted \"" + names[1] + "\""));
    EXPECT_TRUE(capture.Has(kLogInfo, "Deleted \"" + names[2] + "\""));
}

TEST_F(FileWriterTest, WithoutALimitOfRolledFilesNothingIsRemoved) {
    SetLimits(1, 0);
    Start();
    for (int i = 0; i < 3; ++i) FillFile();
    const std::vector<std::string> names = folder.Names();
    ASSERT_EQ(names.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(Contains(names[static_cast<size_t>(i)], "(000" + std::to_string(i + 1) + ")__"));
    }
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

TEST_F(FileWriterTest, QueuedLinesRollAtTheEndOfAPass) {
    SetLimits(1, 4);
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    const std::string line(300 * 1024, 'q');
    for (int i = 0; i < 12; ++i) Logger::Log("Fill()", kLogInfo, "%d %s", i, line.c_str());
    writer->Flush();
    ASSERT_EQ(folder.Names().size(), 2u);
    const size_t firstSize =
        fs::file_size(folder.File(folder.Names()[0])) + fs::file_size(folder.File(folder.Names()[1]));
    EXPECT_GT(firstSize, 12u * 300 * 1024);
}

TEST_F(FileWriterTest, AFileThatCantBeRemovedIsToldAndForgotten) {
    SetLimits(1, 1);
    Start();
    FillFile();
    const std::string second = writer->GetCurrentPath();
    LogCapture capture(kLogInfo);
    fs::remove(second);
    fs::create_directory(second);  // stands in the way of the removal
    FillFile();
    EXPECT_TRUE(capture.Has(kLogWarn, "Failed to delete \"" + fs::path(second).filename().string() +
                                          "\" (errno=" + std::to_string(EISDIR) + ")"));
    capture.Clear();
    const std::string third = writer->GetCurrentPath();
    fs::remove(third);
    FillFile();
    EXPECT_TRUE(capture.Has(kLogInfo, "Deleted \"" + fs::path(third).filename().string() + "\"")) << "already gone";
    EXPECT_TRUE(capture.Texts(kLogWarn).empty());
}

TEST_F(FileWriterTest, ReopeningANameThatIsThereBeginsWithABanner) {
    // The name of the first file, in this minute and in the next one.
    for (const int ahead : {0, 60}) {
        const time_t time = ::time(nullptr) + ahead;
        char stamp[32];
        tm parts;
        std::strftime(stamp, sizeof stamp, "__%Y-%m-%d-%H-%M.log", localtime_r(&time, &parts));
        WriteText(folder.File(NameStart("UsbRedirectionClient") + stamp), "earlier\n");
    }
    Start();
    const std::string stars(78, '*');
    const std::string banner = std::string(24, '*') + "   NEW LOG SESSION STARTING   " + std::string(24, '*');
    EXPECT_EQ(CurrentText().rfind("earlier\n\n" + stars + "\n" + banner + "\n" + stars + "\n\n2", 0), 0u)
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
                          {"maxFileSizeMB", "5000", "1024"},
                          {"maxFileSizeMB", "0", "0"},
                          {"maxFileSizeMB", "0x10", "16"},
                          {"maxFileSizeMB", "010", "8"},
                          {"maxFileSizeMB", "4294967295", "15"},
                          {"maxRollingFiles", "1001", "1000"},
                          {"maxRollingFiles", "0", "0"},
                          {"maxDaysKept", "9", "9"},
                          {"maxNumFiles", "3", "3"},
                          {"minAgeInHours", "1", "1"},
                          {"diskThresholdLowMB", "100", "100"},
                          {"diskThresholdHighMB", "900", "900"},
                          {"fileName", "stem", "stem"}}) {
        EXPECT_TRUE(writer->SetProperty(c.key, c.value));
        EXPECT_EQ(Property(c.key), c.result) << c.key;
        EXPECT_FALSE(writer->SetProperty(c.key, ""));
        EXPECT_EQ(Property(c.key), c.result);
    }
    EXPECT_FALSE(writer->SetProperty("", "1"));
    std::string value = "untouched";
    EXPECT_FALSE(writer->GetProperty("", value));
    EXPECT_TRUE(writer->SetProperty("unknown", "1"));
    EXPECT_TRUE(writer->GetProperty("unknown", value));
    EXPECT_EQ(value, "untouched");
    for (const auto& [level, size] : std::map<int, const char*>{
             {kLogWarn, "15"}, {kLogDebug, "50"}, {kLogTrace, "75"}, {kLogVerbose, "99"}, {kLogNever, "15"}}) {
        logger->SetLevel(level);
        EXPECT_EQ(Property("maxFileSizeMB"), size);
    }
    Start();
    EXPECT_FALSE(writer->SetProperty("filename", "late"));
    EXPECT_FALSE(writer->SetProperty("folderPath", "/tmp"));
    EXPECT_TRUE(writer->SetProperty("maxFileSizeMB", "2"));
}

TEST_F(FileWriterTest, LowDiskSuspendsAllButImportantLinesUntilThereIsRoom) {
    struct Case {
        uint64 free;
        bool suspended;
    };
    Start();
    for (const Case& c : {Case{200 * kMB + 1, false},
                          {200 * kMB, true},
                          {200 * kMB + 1, true},
                          {500 * kMB - 1, true},
                          {kUnknown, true},
                          {500 * kMB, false},
                          {kUnknown, false},
                          {201 * kMB, false},
                          {1, true},
                          {500 * kMB, false}}) {
        freeSpace = c.free;
        Logger::Log("Check()", kLogError, "checks the disk");
        const size_t before = CurrentText().size();
        Logger::Log("Check()", kLogInfo, "INFO");
        Logger::Log("Check()", kLogError, "ERROR");
        Logger::Log("Check()", kLogAlways, "ALWAYS");
        const std::string text = CurrentText().substr(before);
        EXPECT_EQ(CountOf(text, ": INFO\n"), c.suspended ? 0u : 1u) << c.free;
        EXPECT_EQ(CountOf(text, ": ERROR\n"), 1u);
        EXPECT_EQ(CountOf(text, ": ALWAYS\n"), 1u);
    }
}

TEST_F(FileWriterTest, TheThresholdsKeepADistanceAndALoweredOneCountsAtOnce) {
    writer->SetProperty("diskThresholdLowMB", "480");
    Start();
    const auto suspended = [&](uint64 freeBytes) {
        freeSpace = freeBytes;
        Logger::Log("Check()", kLogError, "checks the disk");
        const size_t before = CurrentText().size();
        Logger::Log("Check()", kLogInfo, "INFO");
        return !Contains(CurrentText().substr(before), "INFO");
    };
    EXPECT_TRUE(suspended(400 * kMB));
    EXPECT_TRUE(suspended(530 * kMB - 1)) << "at least 50 MB above the low one";
    EXPECT_FALSE(suspended(530 * kMB));
    EXPECT_TRUE(suspended(480 * kMB));
    writer->SetProperty("diskThresholdLowMB", "460");
    EXPECT_TRUE(suspended(459 * kMB)) << "still below";
    EXPECT_TRUE(suspended(470 * kMB)) << "the lowered threshold counted once";
    writer->SetProperty("diskThresholdLowMB", "455");
    EXPECT_FALSE(suspended(470 * kMB));
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

TEST_F(FileWriterTest, ASuspendedQueueCountsWhatItTurnsAway) {
    freeSpace = 100 * kMB;
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    Logger::Log("Check()", kLogInfo, "first");
    writer->Flush();
    Logger::Log("Check()", kLogInfo, "away");
    Logger::Log("Check()", kLogWarn, "away");
    freeSpace = 900 * kMB;
    Logger::Log("Check()", kLogError, "resumes");
    writer->Flush();
    EXPECT_FALSE(Contains(CurrentText(), "away"));
    EXPECT_TRUE(Contains(CurrentText(), "Logging resumed after"));
    Logger::Log("Check()", kLogInfo, "next");
    writer->Flush();
    EXPECT_TRUE(Contains(CurrentText(), ": next\n\n******* Dropped 2 messages *******\n\n")) << CurrentText();
}

TEST_F(FileWriterTest, AMissingFolderMakesTheStartFail) {
    writer->SetProperty("folderPath", folder.File("missing"));
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(fs::exists(folder.File("missing")));
    fs::create_directory(folder.File("missing"));
    EXPECT_TRUE(logger->Start()) << "and the writer usable";
}

TEST_F(FileWriterTest, LinesLostToAFailedRollAreReportedOnceAFileOpensAgain) {
    SetLimits(1, 4);
    Start();
    const std::string hidden = folder.path + "-hidden";
    fs::rename(folder.path, hidden);
    const std::string line(1200 * 1024, 'x');
    Logger::Log("Roll()", kLogInfo, "%s", line.c_str());  // goes to the open file; the roll behind it fails
    KxElapsedTimer sinceFailure;
    Logger::Log("Lost()", kLogInfo, "one");
    fs::rename(hidden, folder.path);
    // A try a second at most: within it the folder is back in vain.
    Logger::Log("Lost()", kLogInfo, "two");
    const bool inTime = sinceFailure.GetTimerMS(KxTimer::Mode::Read, 0) < 900;
    EXPECT_TRUE(!inTime || folder.Names().size() == 1);
    int written = 2;
    while (folder.Names().size() == 1 && sinceFailure.GetTimerMS(KxTimer::Mode::Read, 0) < 20000) {
        Logger::Log("Again()", kLogInfo, "%d", written++);
        std::this_thread::yield();
    }
    const std::string text = CurrentText();
    std::vector<std::string> match;
    ASSERT_TRUE(Finds(text,
                      "\n"
                      R"(\*{7} Dropped (\d+) messages \*{7})"
                      "\n\n",
                      &match))
        << text;
    EXPECT_EQ(std::stoi(match[1]) + static_cast<int>(CountOf(text, " I Again(): ")), written)
        << "none is unaccounted for";
    EXPECT_TRUE(Contains(text, " I Again(): " + std::to_string(written - 1) + "\n"));
}

TEST_F(FileWriterTest, LinksAreNotFollowedAndOtherThanFilesNotOpened) {
    const auto nameAhead = [&](int ahead) {
        const time_t time = ::time(nullptr) + ahead;
        char stamp[32];
        tm parts;
        std::strftime(stamp, sizeof stamp, "__%Y-%m-%d-%H-%M.log", localtime_r(&time, &parts));
        return folder.File(NameStart("UsbRedirectionClient") + stamp);
    };
    const std::string target = folder.File("target");
    WriteText(target, "not a log\n");
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
        const std::string names[] = {nameAhead(0), nameAhead(60)};
        for (const std::string& name : names) put(name);
        EXPECT_FALSE(each->Start());
        for (const std::string& name : names) fs::remove(name);
    }
    EXPECT_EQ(ReadText(target), "not a log\n");
    EXPECT_FALSE(fs::exists(folder.File("nowhere")));
}

TEST_F(FileWriterTest, AForeignUsersLinkIsNoFolder) {
    if (geteuid() != 0) GTEST_SKIP() << "needs the right to give a link away";
    const std::string link = folder.path + "-link";
    fs::create_directory_symlink(folder.path, link);
    ASSERT_EQ(lchown(link.c_str(), 12345, 12345), 0);
    writer->SetProperty("folderPath", link);
    EXPECT_FALSE(logger->Start());
    ASSERT_EQ(lchown(link.c_str(), geteuid(), getegid()), 0);
    writer->SetProperty("folderPath", link + "/");
    EXPECT_TRUE(logger->Start()) << "one's own is";
    LoggerManager::Shutdown();
    fs::remove(link);
}

TEST_F(FileWriterTest, ARollAtTheEndStartsNoThreadAgain) {
    SetLimits(1, 4);
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    const std::string line(600 * 1024, 'e');
    for (int i = 0; i < 4; ++i) Logger::Log("End()", kLogInfo, "%s", line.c_str());
    LoggerManager::Shutdown();
    EXPECT_EQ(folder.Names().size(), 2u) << "rolled by the last pass";
    EXPECT_TRUE(Contains(ReadText(folder.File(folder.Names()[0])) + ReadText(folder.File(folder.Names()[1])),
                         "*** LOG FILE COMPLETE ***"));
    size_t threads = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        threads += Contains(ReadText(entry.path().string() + "/comm"), "KxPoll-Logger");
    }
    EXPECT_EQ(threads, 0u);
}

}  // namespace
