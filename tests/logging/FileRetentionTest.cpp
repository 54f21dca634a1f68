// The scan for old log files, slice by slice, over a real folder whose files have set ages.
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <utility>

#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

namespace fs = std::filesystem;

constexpr int64 kHour = 3600;
constexpr int64 kDay = 86400;

class FileRetentionTest : public LoggingTest {
protected:
    ~FileRetentionTest() override {
        goOn.Set();
        LoggerManager::Shutdown();
    }

    // Keeps the thread "Logger" busy: a change of a rule calls for a scan there, but the test makes its steps.
    void HoldThread() {
        KxEvent held{true, false};
        LoggerManager::GetPollThread()->AddTask("hold", nullptr, 0, [&](bool) {
            held.Set();
            goOn.Wait(kInfinite);
            return false;
        });
        held.Wait(kInfinite);
    }
    void Start() {
        HoldThread();
        ASSERT_TRUE(logger->Start());
        own = fs::path(writer->GetCurrentPath()).filename().string();
    }
    void SetRules(int days, int files, int hours) {
        writer->SetProperty("maxDaysKept", std::to_string(days));
        writer->SetProperty("maxNumFiles", std::to_string(files));
        writer->SetProperty("minAgeInHours", std::to_string(hours));
    }
    // A file of another process, that many seconds old.
    std::string Put(const std::string& stem, int process, int64 age) {
        const std::string name = "velmora-" + stem + "-0-" + std::to_string(process) + "__2026-01-01-00-00.log";
        PutFile(name, age);
        return name;
    }
    void PutFile(const std::string& name, int64 age) { SetFileAge(folder.Write(name, "old\n"), age); }
    // Runs a scan to its end; returns the number of slices.
    int Scan() {
        int slices = 1;
        while (writer->ScanStep(false) && slices < 1000) ++slices;
        return slices;
    }
    bool Exists(const std::string& name) const { return fs::exists(fs::symlink_status(folder.File(name))); }
    std::string ScanLine() const { return "Scanning \"" + folder.path + "/velmora-Comp*\""; }

    TempFolder folder;
    KxEvent goOn{true, false};
    std::string own;  // the file of this process
    const RCPtr<Logger> logger{MakeLogger(kLogInfo, "Comp")};
    const RCPtr<FileWriter> writer{AddFileWriter(logger, folder.path)};
};

TEST_F(FileRetentionTest, RemovesTheOldOnesOfItsStemAmongTwoHundredFilesInSlices) {
    std::set<std::string> stay;
    std::set<std::string> go;
    for (int i = 0; i < 100; ++i) {
        const int64 age = i < 70 ? 8 * kDay + i : kHour * i;  // 70 beyond seven days, the others up to four days old
        (i < 70 ? go : stay).insert(Put("Comp", 900000 + i, age));
    }
    for (int i = 0; i < 30; ++i) go.insert(Put("Component", 800000 + i, 30 * kDay));  // a longer stem matches too
    for (int i = 0; i < 50; ++i) stay.insert(Put("Other", 700000 + i, 30 * kDay));
    for (int i = 0; i < 19; ++i) {
        const std::string foreign = "corvex-Comp-" + std::to_string(i);
        PutFile(foreign, 30 * kDay);
        stay.insert(foreign);
    }
    fs::create_directory(folder.File("velmora-Comp-folder"));
    stay.insert("velmora-Comp-folder");
    fs::create_symlink(folder.File("corvex-Comp-0"), folder.File("velmora-Comp-link"));
    stay.insert("velmora-Comp-link");
    Start();
    SetFileAge(folder.File(own), 40 * kDay);
    stay.insert(own);
    writer->SetProperty("maxNumFiles", "0");

    LogCapture capture(kLogInfo);
    const int slices = Scan();
    for (const std::string& name : go) EXPECT_FALSE(Exists(name)) << name;
    for (const std::string& name : stay) EXPECT_TRUE(Exists(name)) << name;
    // 131 matching files in 7 slices, 100 removals in 6, the last to find nothing more, one each for the other steps.
    EXPECT_EQ(slices, 7 + 6 + 1 + 1);
    const auto texts = capture.Texts(kLogInfo);
    ASSERT_GE(texts.size(), 5u);
    EXPECT_EQ(texts[0], ScanLine());
    EXPECT_EQ(texts[1], "Scan complete; 130 files found");
    EXPECT_EQ(texts[2], "Deleting files older than 7 days");
    EXPECT_TRUE(Matches(texts[3], R"(Deleted "velmora-Component-0-8000\d\d__.*" \(age 30 days.*\))"));
    EXPECT_EQ(capture.Count("Deleting files older than 7 days"), 1u) << "told once, not in each slice";
    EXPECT_TRUE(capture.Has(kLogInfo, "Deleting old log files disabled"));
    EXPECT_EQ(texts.back(), "Scan complete; 100 files deleted, 30 files remain, next scan in 4:00:00");
}

TEST_F(FileRetentionTest, OldestGoFirstAndASliceEndsAfterTwenty) {
    SetRules(1, 0, 0);
    std::vector<std::string> expected(45);
    for (int i = 0; i < 45; ++i) {
        const int rank = i * 7 % 45;
        const std::string name = Put("Comp", 900000 + i, 4 * kDay - kHour * rank);
        expected[static_cast<size_t>(rank)] = "Deleted \"" + name + "\"";
    }
    Start();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(writer->ScanStep(false));  // 46 files are found
    LogCapture capture(kLogInfo);
    std::vector<std::string> deleted;
    for (const size_t total : {20u, 40u, 45u}) {
        EXPECT_TRUE(writer->ScanStep(false));
        deleted.clear();
        for (const std::string& text : capture.Texts(kLogInfo)) {
            if (text.starts_with("Deleted ")) deleted.push_back(text.substr(0, text.find(" (age")));
        }
        EXPECT_EQ(deleted.size(), total);
    }
    EXPECT_EQ(deleted, expected);
}

TEST_F(FileRetentionTest, TheLimitsOfAgeAndCount) {
    struct Case {
        int days, files, hours;
        std::vector<std::pair<int, int64>> put;  // how many files of that age
        size_t remain;
        const char* line;  // that is told
    };
    Start();
    for (const Case& c : {Case{0, 0, 2, {{3, 100 * kDay}}, 3, "Scan complete; 0 files deleted, 3 files remain"},
                          {7, 25, 2, {{1, 8 * kDay}, {1, kDay}}, 1, "Scan complete; 1 file deleted, 1 file remains"},
                          {1, 0, 48, {{1, 36 * kHour}, {1, 49 * kHour}}, 1, "Deleting files older than 2 days"},
                          {7, 25, 2, {{30, kDay}}, 25, "Keeping 25 files, minimum age 2:00:00, 0 active sessions"},
                          {7, 1, 1, {{3, kDay}}, 1, "Keeping 1 file, minimum age 1:00:00, 0 active sessions"},
                          {7, 25, 2, {{3, kDay}, {27, kHour}}, 27, "Scan complete; 3 files deleted, 27 files remain"},
                          {7, 5, 0, {{50, kDay}}, 5, "Scan complete; 45 files deleted, 5 files remain"},
                          {7, 25, 0, {{25, kDay}}, 25, "Scan complete; 0 files deleted, 25 files remain"},
                          {7, 2, 0, {{4, 5}}, 2, "Keeping 2 files, minimum age 0s, 0 active sessions"}}) {
        SCOPED_TRACE(c.line);
        SetRules(c.days, c.files, c.hours);
        int number = 900000;
        for (const auto& [count, age] : c.put) {
            for (int i = 0; i < count; ++i) Put("Comp", number++, age);
        }
        const LogCapture capture(kLogInfo);
        Scan();
        const auto texts = capture.Texts(kLogInfo);
        EXPECT_TRUE(
            std::any_of(texts.begin(), texts.end(), [&](const auto& text) { return text.starts_with(c.line); }));
        EXPECT_TRUE(texts.back().ends_with(", next scan in 4:00:00"));
        EXPECT_EQ(folder.Names().size(), c.remain + 1) << "and the one of this process";
        for (const std::string& name : folder.Names()) {
            if (name != own) fs::remove(folder.File(name));
        }
    }
}

TEST_F(FileRetentionTest, EachScanTellsTheRulesAnewAndAFolderThatHasGoneIsEmpty) {
    SetRules(1, 2, 0);
    Start();
    for (const bool gone : {false, true}) {
        if (gone) fs::remove_all(folder.path);
        const LogCapture capture(kLogInfo);
        EXPECT_EQ(Scan(), 4);
        EXPECT_EQ(
            capture.Texts(kLogInfo),
            (std::vector<std::string>{ScanLine(), "Scan complete; 0 files found", "Deleting files older than 1 day",
                                      "Keeping 2 files, minimum age 0s, 0 active sessions",
                                      "Scan complete; no log files found, next scan in 4:00:00"}));
    }
}

TEST_F(FileRetentionTest, AFileExactlyAtTheLimitStays) {
    SetRules(1, 0, 0);
    Start();
    // Ages are whole seconds of a clock that goes on, so the scan has to run in the second in which they were set.
    for (int attempt = 0; attempt < 20; ++attempt) {
        const time_t before = time(nullptr);
        const std::string at = Put("Comp", 900001, kDay);
        const std::string beyond = Put("Comp", 900002, kDay + 1);
        LogCapture capture(kLogInfo);
        Scan();
        if (time(nullptr) != before) continue;
        EXPECT_TRUE(Exists(at));
        EXPECT_FALSE(Exists(beyond));
        EXPECT_TRUE(capture.Has(kLogInfo, "Stopping at \"" + at + "\" (age 1 day)"));
        return;
    }
    FAIL() << "no scan within a second";
}

TEST_F(FileRetentionTest, FilesOfThisProcessAreNeverTouched) {
    SetRules(1, 1, 0);
    const std::string process = std::to_string(getpid());
    const std::string earlier = "velmora-Comp-0-" + process + "(2)__2020-01-01-00-00.log";
    const std::string otherCase = "velmora-COMP-0-" + process + "__2020-01-01-00-00.log";
    PutFile(earlier, 100 * kDay);
    PutFile(otherCase, 100 * kDay);
    Start();
    LogCapture capture(kLogVerbose);
    Scan();
    EXPECT_TRUE(Exists(earlier) && Exists(otherCase) && Exists(own));
    EXPECT_TRUE(capture.Has(kLogVerbose, "Skipping current process \"" + earlier + "\" (age 100 days)"));
    EXPECT_TRUE(capture.Has(kLogInfo, "Scan complete; no log files found, next scan in 4:00:00"));
}

TEST_F(FileRetentionTest, AFolderWithTheCharactersOfAPatternIsScannedToo) {
    const std::string odd = folder.File("a[b]*\\c");
    fs::create_directory(odd);
    writer->SetProperty("folderPath", odd);
    WriteText(odd + "/velmora-Comp-0-900000__x.log", "");
    Start();
    LogCapture capture(kLogInfo);
    Scan();
    EXPECT_TRUE(capture.Has(kLogInfo, "Scan complete; 1 file found"));
}

TEST_F(FileRetentionTest, AFileThatCantBeRemovedIsToldAndTriedByTheNextScan) {
    SetRules(1, 0, 0);
    const std::string stuck = Put("Comp", 900001, 3 * kDay);
    const std::string gone = Put("Comp", 900002, 2 * kDay);
    Start();
    LogCapture capture(kLogInfo);
    EXPECT_TRUE(writer->ScanStep(false));
    fs::remove(folder.File(gone));
    fs::remove(folder.File(stuck));
    fs::create_directory(folder.File(stuck));
    Scan();
    EXPECT_TRUE(capture.Has(kLogWarn,
                            "Failed to delete \"" + stuck + "\" (age 3 days) (errno=" + std::to_string(EISDIR) + ")"));
    EXPECT_TRUE(capture.Has(kLogInfo, "Deleted \"" + gone + "\" (age 2 days)"));
    EXPECT_EQ(capture.Texts(kLogInfo).back(), "Scan complete; 1 file deleted, 0 files remain, next scan in 4:00:00");
}

TEST_F(FileRetentionTest, AChangeOfTheRulesInterruptsAScanButNotItsWalk) {
    for (int i = 0; i < 30; ++i) Put("Comp", 900000 + i, 10 * kDay);
    SetRules(7, 0, 0);
    Start();
    LogCapture capture(kLogInfo);
    EXPECT_TRUE(writer->ScanStep(false));
    EXPECT_TRUE(writer->ScanStep(true)) << "the walk goes on";
    EXPECT_EQ(capture.Texts(kLogInfo), (std::vector<std::string>{ScanLine(), "Scan complete; 30 files found"}));
    EXPECT_TRUE(writer->ScanStep(false));  // removes 20
    capture.Clear();
    EXPECT_TRUE(writer->ScanStep(true));
    EXPECT_EQ(capture.Texts(kLogInfo),
              (std::vector<std::string>{"Scan interrupted; 20 files deleted, 10 files remain, next scan in 4:00:00",
                                        ScanLine(), "Scan complete; 10 files found"}));
    Scan();
    EXPECT_EQ(folder.Names(), std::vector<std::string>{own});
}

// On the poll thread: a change of a rule starts a scan without the wait of a minute, and the step after a second ends
// it.
TEST_F(FileRetentionTest, AChangeOfARuleStartsAScanAtOnceSlow) {
    const std::string old = Put("Comp", 900000, 3 * kDay);
    ASSERT_TRUE(logger->Start());
    LogCapture capture(kLogInfo);
    writer->SetProperty("maxDaysKept", "2");
    EXPECT_TRUE(capture.WaitFor(kLogInfo, "Deleted \"" + old + "\" (age 3 days)"));
    EXPECT_TRUE(capture.WaitFor(kLogInfo, "Scan complete; 1 file deleted, 0 files remain, next scan in 4:00:00"));
}

}  // namespace
