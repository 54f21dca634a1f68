// log-view: prints log files for people.

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "generated/Version.h"
#include "tools/logview/FileHandle.h"
#include "tools/logview/LogFiles.h"
#include "tools/logview/LogFollower.h"
#include "tools/logview/LogSummary.h"
#include "tools/logview/Options.h"
#include "tools/logview/Printers.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitBadInput = 2;
constexpr size_t kReadSize = 1 << 18;
constexpr int kPollMS = 100;

// Lock-free, and thus fit for a signal handler. Relaxed: it is looked at again and again, and orders nothing.
std::atomic<bool> gStopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnStopSignal(int) {
    gStopRequested.store(true, std::memory_order_relaxed);
}

// The first signal ends following in order, the second one at once.
void InstallSignals() {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

int Complain(const std::string& text, int status) {
    fprintf(stderr, "log-view: %s\n", text.c_str());
    return status;
}

int Print(std::string_view text) {
    Output output(STDOUT_FILENO);
    output.Append(text);
    return output.Flush() ? 0 : Complain("cannot write to standard output", kExitFailure);
}

bool WantsColor(const ViewOptions& options) {
    if (options.color != ColorChoice::Auto) return options.color == ColorChoice::Always;
    const char* const noColor = getenv("NO_COLOR");
    const char* const terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) && !(noColor && *noColor) && !(terminal && strcmp(terminal, "dumb") == 0);
}

std::unique_ptr<RecordSink> MakeSink(const ViewOptions& options, Output& output) {
    if (options.summary) return std::make_unique<LogSummary>(output, options.json);
    if (options.json) return std::make_unique<JsonPrinter>(output);
    return std::make_unique<PlainPrinter>(output, WantsColor(options), isatty(STDOUT_FILENO));
}

// Nothing is changed on the way from the file to the output.
bool IsPlainCopy(const ViewOptions& options) {
    return !options.summary && !options.json && !options.filter.Active() && !WantsColor(options) &&
           !isatty(STDOUT_FILENO);
}

// Hands the bytes of the file to take, which gives room for them. The error's number, or 0.
template <typename Room, typename Take>
int ReadFile(const std::string& path, const Output& output, Room room, Take take) {
    const FileHandle file(path);
    if (!file) return errno;
    while (!output.Failed()) {
        const std::span<char> into = room();
        const ssize_t got = read(file.Fd(), into.data(), std::min(into.size(), kReadSize));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        if (got == 0) break;
        take(into.first(static_cast<size_t>(got)));
    }
    return 0;
}

int CopyFile(const std::string& path, Output& output) {
    std::vector<char> buffer(kReadSize);
    char last = '\n';
    const int error = ReadFile(
        path, output, [&] { return std::span<char>(buffer); },
        [&](std::span<char> bytes) {
            output.Append({bytes.data(), bytes.size()});
            last = bytes.back();
        });
    if (last != '\n') output.Append('\n');
    return error;
}

int ViewFile(const std::string& path, const ViewOptions& options, RecordSink& sink, Output& output) {
    RecordStream stream(options.filter, sink);
    const int error = ReadFile(
        path, output, [&] { return stream.Room(); }, [&](std::span<char> bytes) { stream.Added(bytes.size()); });
    stream.End();
    return error;
}

// What could not be read is told, and the rest goes on.
int ViewFiles(const ViewOptions& options, const std::vector<std::string>& paths, RecordSink& sink, Output& output) {
    int status = 0;
    for (const std::string& path : paths) {
        const int error = IsPlainCopy(options) ? CopyFile(path, output) : ViewFile(path, options, sink, output);
        if (error != 0) status = Complain("cannot read " + path + ": " + strerror(error), kExitFailure);
    }
    return status;
}

// A file whose process has a later one among those named is complete: the later one is followed in its stead.
bool IsContinued(const std::vector<std::string>& paths, size_t index) {
    const std::string family = LogFamily(paths[index]);
    return !family.empty() && std::any_of(paths.begin() + static_cast<std::ptrdiff_t>(index) + 1, paths.end(),
                                          [&](const std::string& path) { return LogFamily(path) == family; });
}

bool StopRequested() {
    return gStopRequested.load(std::memory_order_relaxed);
}

int Follow(const ViewOptions& options, const std::vector<std::string>& paths, RecordSink& sink, Output& output) {
    InstallSignals();
    int status = 0;
    std::vector<std::unique_ptr<LogFollower>> followers;
    for (size_t i = 0; i < paths.size() && !StopRequested(); i++) {
        if (IsContinued(paths, i)) {
            status = std::max(status, ViewFiles(options, {paths[i]}, sink, output));
            continue;
        }
        followers.push_back(std::make_unique<LogFollower>(paths[i], options.filter, sink, gStopRequested));
        while (followers.back()->Poll() && !StopRequested()) {
        }
        sink.Settle();
    }
    while (!StopRequested() && !output.Failed()) {
        bool any = false;
        for (const auto& follower : followers) any = follower->Poll() || any;
        if (!any) poll(nullptr, 0, kPollMS);
    }
    for (const auto& follower : followers) follower->Finish();
    return status;
}

int View(const ViewOptions& options) {
    std::vector<std::string> paths = options.files;
    for (const std::string& path : paths) {
        const std::string why = WhyUnreadable(path);
        if (why.empty()) continue;
        const bool absent = access(path.c_str(), F_OK) != 0 && errno == ENOENT;
        if (!options.follow || !absent) return Complain(why, kExitBadInput);
        Complain("waiting for " + path, 0);
    }
    if (paths.size() > 1) SortByFirstStamp(paths);
    Output output(STDOUT_FILENO);
    const std::unique_ptr<RecordSink> sink = MakeSink(options, output);
    const int status =
        options.follow ? Follow(options, paths, *sink, output) : ViewFiles(options, paths, *sink, output);
    sink->Finish();
    return output.Flush() ? status : Complain("cannot write to standard output", kExitFailure);
}

}  // namespace

int main(int argc, char** argv) {
    const auto parsed = ParseViewOptions({argv + 1, argv + argc});
    if (const auto* error = std::get_if<std::string>(&parsed))
        return Complain(*error + " (--help tells what there is)", kExitBadInput);
    const auto* options = std::get_if<ViewOptions>(&parsed);
    if (options->help) return Print(ViewUsage());
    if (options->version) return Print("log-view " CORVEX_VERSION " (" CORVEX_REVISION ")\n");
    return View(*options);
}
