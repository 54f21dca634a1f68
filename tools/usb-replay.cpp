// usb-replay: recorded USB traffic through the plug-in to an agent process and back, with an account of every message.

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "generated/Version.h"
#include "tools/replay/Layout.h"
#include "tools/replay/Options.h"
#include "tools/replay/ProgramLog.h"
#include "tools/replay/ProgressBar.h"
#include "tools/replay/ReplayClient.h"
#include "tools/replay/ReplayClients.h"
#include "tools/replay/ReplaySession.h"
#include "tools/replay/Report.h"

namespace {

constexpr int kExitBadInput = 2;

// Lock-free, and thus fit for a signal handler. Relaxed: it is looked at again and again, and orders nothing.
std::atomic<bool> gStopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnStopSignal(int) {
    gStopRequested.store(true, std::memory_order_relaxed);
}

// The first signal ends the replay in order, the second one at once. A client of another usb-replay has the stop signal
// blocked until here.
void InstallSignals() {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, ReplayClients::kStopSignal);
    sigprocmask(SIG_UNBLOCK, &stop, nullptr);
}

int Complain(const std::string& text, int status) {
    fprintf(stderr, "usb-replay: %s\n", text.c_str());
    return status;
}

int Print(const std::string& text) {
    const bool written = fputs(text.c_str(), stdout) >= 0 && fflush(stdout) == 0;
    return written ? 0 : Complain("cannot write to standard output", 1);
}

// False, with one line in error, if a file is no capture with records.
bool ReadCaptures(const std::vector<std::string>& paths, std::vector<UsbCapture>* captures, std::string* error) {
    bool records = false;
    for (const std::string& path : paths) {
        std::optional<UsbCapture> capture = UsbCapture::Read(path, error);
        if (!capture) return false;
        records = records || !capture->Records().empty();
        captures->push_back(std::move(*capture));
    }
    if (!records) *error = "there is no record to replay in " + paths.front();
    return records;
}

// One session in this process.
bool ReplayHere(const ReplayOptions& options, std::vector<UsbCapture> captures, ReplayReport* report,
                std::string* error) {
    ProgressBar bar(stderr);
    ReplaySession session(options, std::move(captures), gStopRequested,
                          [&bar](uint64_t sent, uint64_t total) { bar.Show(sent, total); });
    return session.Run(report, error);
}

// A session each in several processes.
bool ReplayInClients(const ReplayOptions& options, const std::vector<std::string>& arguments,
                     const std::vector<UsbCapture>& captures, ReplayReport* report, std::string* error) {
    uint64_t total = 0;
    for (const UsbCapture& capture : captures) {
        report->captures.push_back(Summarize(capture));
        total += capture.Records().size() * options.loop * options.clients;
    }
    ProgressBar bar(stderr);
    ReplayClients clients(options, arguments, gStopRequested, [&bar, total](uint64_t sent) { bar.Show(sent, total); });
    return clients.Run(report, error);
}

int Replay(const ReplayOptions& options, const std::vector<std::string>& arguments) {
    std::string error;
    std::vector<UsbCapture> captures;
    const std::vector<std::string> shipped = {SampleCapturePath()};
    if (!ReadCaptures(options.captures.empty() ? shipped : options.captures, &captures, &error))
        return Complain(error, kExitBadInput);

    ProgramLog log;
    if (!options.logConfig.empty() && !log.Start("UsbReplay", "usb-replay", options.logConfig, &error))
        return Complain(error, kExitBadInput);

    InstallSignals();
    if (options.asClient) return RunReplayClient(options, std::move(captures), gStopRequested);
    ReplayReport report;
    const bool ran = options.clients > 0 ? ReplayInClients(options, arguments, captures, &report, &error)
                                         : ReplayHere(options, std::move(captures), &report, &error);
    if (!ran) return Complain(error, 1);
    for (const std::string& problem : report.problems) Complain(problem, 1);
    const int printed = Print(options.json ? ReportAsJson(report) + "\n" : ReportAsText(report));
    return report.Ok() ? printed : 1;
}

}  // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto parsed = ParseOptions(arguments);
    if (const auto* error = std::get_if<std::string>(&parsed))
        return Complain(*error + " (--help tells what there is)", kExitBadInput);
    const auto& options = std::get<ReplayOptions>(parsed);
    if (options.help) return Print(ReplayUsage());
    if (options.version) return Print("usb-replay " CORVEX_VERSION " (" CORVEX_REVISION ")\n");
    return Replay(options, arguments);
} catch (const std::exception& error) {
    std::fprintf(stderr, "usb-replay: %s\n", error.what());
    return 1;
}
