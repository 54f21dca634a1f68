// The file writer on a real file system that fills up: a small one in memory, of the test's own.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

#include "tests/logging/LogSupport.h"
#include "tests/support/Pattern.h"

namespace {

constexpr uint64 kMB = 1 << 20;
constexpr uint64 kDiskSize = 56 * kMB;  // the upper threshold is 50 MB above the lower one at least

// A tmpfs that is mounted for a child process alone and reached through that process's root. It goes with the child,
// and the child with the socket to it, however the test ends.
class SmallDisk {
public:
    SmallDisk() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            error = errno;
            return;
        }
        socket = ends[0];
        child = fork();
        if (child == 0) RunChild(ends[1]);
        if (child < 0) error = errno;
        close(ends[1]);
        if (child < 0) return;
        folder = "/proc/" + std::to_string(child) + "/root" + place.path;
        if (read(socket, &error, sizeof error) != sizeof error) error = ECHILD;
        if (error != 0) return;
        ballast = open((folder + "/ballast").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (ballast < 0) error = errno;
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() {
        if (ballast >= 0) close(ballast);
        if (socket >= 0) close(socket);
        if (child > 0) waitpid(child, nullptr, 0);
    }

    // 0 if the disk is there.
    int Error() const { return error; }
    const std::string& Folder() const { return folder; }

    uint64 Free() const {
        struct statvfs space = {};
        EXPECT_EQ(statvfs(folder.c_str(), &space), 0);
        return static_cast<uint64>(space.f_bavail) * space.f_frsize;
    }

    // Makes the ballast as large as leaves that much free, or as small as it can be.
    void LeaveFree(uint64 bytes) {
        const off_t size = lseek(ballast, 0, SEEK_END);
        const auto growth = static_cast<off_t>(Free()) - static_cast<off_t>(bytes);
        if (growth > 0) {
            ASSERT_EQ(posix_fallocate(ballast, size, growth), 0);
            ASSERT_EQ(Free(), bytes);
        } else {
            ASSERT_EQ(ftruncate(ballast, std::max<off_t>(0, size + growth)), 0);
        }
    }

private:
    // Nothing but system calls from here on: the process that was copied has threads.
    [[noreturn]] void RunChild(int end) const {
        const int result = Mount() ? 0 : errno;
        close(socket);
        char none;
        if (write(end, &result, sizeof result) == sizeof result) {
            while (read(end, &none, 1) < 0 && errno == EINTR) {
            }
        }
        _exit(0);
    }
    bool Mount() const {
        return (unshare(CLONE_NEWNS) == 0 || BecomeOwner()) &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("tmpfs", place.path.c_str(), "tmpfs", MS_NODEV | MS_NOSUID, options.c_str()) == 0;
    }
    // In a user namespace of its own the child may mount too.
    bool BecomeOwner() const {
        return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && Put("/proc/self/setgroups", "deny") &&
               Put("/proc/self/uid_map", userMap) && Put("/proc/self/gid_map", groupMap);
    }
    static bool Put(const char* path, std::string_view text) {
        const int file = open(path, O_WRONLY | O_CLOEXEC);
        return file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    static std::string MapOf(unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; }

    TempFolder place;
    const std::string options = "mode=0700,size=" + std::to_string(kDiskSize);
    const std::string userMap = MapOf(geteuid());
    const std::string groupMap = MapOf(getegid());
    int socket = -1;
    pid_t child = -1;
    std::string folder;
    int ballast = -1;
    int error = 0;
};

// The log on such a disk, with 1 MB and 51 MB as its thresholds; passes run by Flush alone.
class FullDiskTest : public LoggingTest {
protected:
    ~FullDiskTest() override { LoggerManager::Shutdown(); }

    void SetUp() override {
        if (disk.Error() != 0) {
            GTEST_SKIP() << "no file system can be mounted here: " << std::generic_category().message(disk.Error());
        }
        Start();
    }
    void Start() {
        const RCPtr<Logger> logger = MakeLogger(kLogInfo, "UsbRedirectionClient");
        writer = AddFileWriter(logger, disk.Folder());
        writer->SetFreeSpaceSource({});
        writer->SetProperty("diskThresholdLowMB", "1");
        writer->SetProperty("diskThresholdHighMB", "2");
        writer->SetFlushPeriod(3600000);
        ASSERT_TRUE(logger->Start());
        path = writer->GetCurrentPath();
    }
    // Lines of that function, numbered on from first, and a pass.
    void Log(const char* function, int level, int count, int first = 0) {
        for (int i = first; i < first + count; ++i) Logger::Log(function, level, "number %d", i);
        writer->Flush();
    }
    std::string Text() const { return ReadText(path); }

    SmallDisk disk;
    RCPtr<FileWriter> writer;
    std::string path;
};

int DroppedIn(const std::string& text) {
    int sum = 0;
    for (const std::string& line : SplitLines(text)) {
        int count = 0;
        if (std::sscanf(line.c_str(), "******* Dropped %d messages *******", &count) == 1) sum += count;
    }
    return sum;
}

TEST_F(FullDiskTest, EachLineIsWrittenOrCountedAsTheDiskFillsAndEmpties) {
    struct Step {
        uint64 free;
        bool suspended;
        const char* notice;  // that comes with it
    };
    const char kSuspended[] = R"(\*{7} Free disk space is [45]\d\d\.\dKB - Logging suspended \*{7})"
                              "\n";
    const char kResumed[] = R"(\*{7} Free disk space is 5[56]\.\dMB - Logging resumed after [^ ]+ \*{7})"
                            "\n\n";
    constexpr int kLines = 5;
    int logged = 0;
    for (const Step& step : {Step{40 * kMB, false, nullptr},
                             {kMB / 2, true, kSuspended},
                             {30 * kMB, true, nullptr},
                             {50 * kMB + kMB / 2, true, nullptr},
                             {kDiskSize, false, kResumed},
                             {2 * kMB, false, nullptr},
                             {kMB / 2, true, kSuspended},
                             {kDiskSize, false, kResumed}}) {
        SCOPED_TRACE(step.free);
        ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(step.free));
        const size_t before = Text().size();
        Log("Check()", kLogError, 1);
        const std::string check = Text().substr(before);
        EXPECT_EQ(CountOf(check, " E Check(): number 0\n"), 1u);
        EXPECT_EQ(CountOf(check, "Free disk space is"), step.notice ? 1u : 0u) << check;
        EXPECT_TRUE(!step.notice || Finds(check, step.notice)) << check;
        Log("Work()", kLogInfo, kLines, logged);
        logged += kLines;
        EXPECT_EQ(CountOf(Text().substr(before), " I Work(): number "), step.suspended ? 0u : size_t{kLines});
    }
    EXPECT_EQ(static_cast<int>(CountOf(Text(), " I Work(): number ")) + DroppedIn(Text()), logged);
}

TEST_F(FullDiskTest, LinesThatNoLongerFitAreLostAndTheLogGoesOnWithRoom) {
    constexpr int kLines = 2000;
    constexpr int kAway = 7;
    for (const bool buffered : {true, false}) {
        SCOPED_TRACE(buffered);
        writer->SetBuffering(buffered);
        ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(0));
        const size_t begin = Text().size();
        Log("Full()", kLogError, kLines);
        const size_t full = Text().size();
        ASSERT_LT(CountOf(Text().substr(begin), " E Full(): number "), size_t{kLines}) << "the system refused some";
        Log("Away()", kLogInfo, kAway);
        Log("Full()", kLogError, 1);
        EXPECT_EQ(Text().size(), full);

        ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(kDiskSize));
        Log("Room()", kLogError, 1);
        Log("Room()", kLogInfo, 3, 1);
        const std::string after = Text().substr(full);
        EXPECT_TRUE(Finds(after, "^\n[0-9][^\n]* E Room\\(\\): number 0\n[^\n]*Logging resumed after ")) << after;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(CountOf(after, " Room(): number " + std::to_string(i) + "\n"), 1u);
        EXPECT_EQ(DroppedIn(after), buffered ? kAway : 0) << "those turned away at the queue's door";
    }
}

TEST_F(FullDiskTest, AReportThatTheSystemRefusedIsMadeAgain) {
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(kMB / 2));
    Log("Check()", kLogError, 1);
    Log("Away()", kLogInfo, 7);
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(kDiskSize));
    Log("Room()", kLogError, 1);  // resumes; the report comes with the next pass
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(0));
    Log("Full()", kLogError, 2000);
    EXPECT_EQ(DroppedIn(Text()), 0);
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(kDiskSize));
    Log("Room()", kLogError, 1);
    Log("Room()", kLogInfo, 1);
    EXPECT_EQ(DroppedIn(Text()), 7);
}

TEST_F(FullDiskTest, BatchModeAndTheEndGetPastAFullDisk) {
    writer->SetBatchThreshold(50);
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(0));
    for (int i = 0; i < 2000; ++i) Logger::Log("Full()", kLogError, "number %d", i);
    LoggerManager::Shutdown();
    EXPECT_FALSE(Contains(Text(), "*** LOG FILE COMPLETE ***")) << "the system refused it";
    ASSERT_NO_FATAL_FAILURE(disk.LeaveFree(kDiskSize));
    StartThread();
    Start();
    Log("Again()", kLogInfo, 1);
    EXPECT_TRUE(Contains(Text(), " I Again(): number 0\n"));
}

}  // namespace
