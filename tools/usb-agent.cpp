// usb-agent: the other end of a replay, a server of the framework that answers as the USB plug-in of the remote desktop
// does, in the smallest form.

#include <signal.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/replay/Agent.h"
#include "tools/replay/AgentControl.h"
#include "tools/replay/AgentStats.h"
#include "tools/replay/ProgramLog.h"

namespace {

constexpr char kUsage[] =
    "Usage: usb-agent (--listen unix:PATH | --listen tcp:ADDRESS:PORT | --fd N) [--single [--ready-timeout MS]]\n"
    "                 [--side-channel tcp|virtual] [--control] [--control-at PATH] [--stats [--json]]\n"
    "                 [--log-config FILE]\n"
    "Serves any number of clients of the USB channel and prints its counts as JSON at the end.\n"
    "\n"
    "  --listen ADDRESS    wait for clients there; port 0 and \"unix:\" choose an address and print it\n"
    "  --fd N              serve the connected socket that was inherited under that number\n"
    "  --single            serve one client at a time, on one instance\n"
    "  --ready-timeout MS  with --single: end if no client is ready within so many milliseconds; 0, the default: wait\n"
    "  --side-channel TYPE offer one to the clients' data objects\n"
    "  --control           answer each line \"counts\" on standard input with the counts, and \"counts HEX\" with "
    "those\n"
    "                      of one client; end with the input\n"
    "  --control-at PATH   answer the same lines on a socket at PATH\n"
    "  --stats             print the sessions once a second, as a table\n"
    "  --json              with --stats: as a line of JSON\n"
    "  --log-config FILE   write a log of its own, with the settings in FILE\n"
    "\n"
    "Without --control it ends on SIGINT or SIGTERM.\n";

const std::map<std::string, SideChannel> kSideChannels = {
    {"", SideChannel::None}, {"tcp", SideChannel::Tcp}, {"virtual", SideChannel::Virtual}};

struct AgentOptions {
    std::string listen;
    std::string logConfig;
    std::string controlAt;
    std::string sideChannel;
    int fd = -1;
    uint32_t readyTimeoutMS = 0;
    bool single = false;
    bool control = false;
    bool stats = false;
    bool json = false;
    bool help = false;
};

template <typename Number>
bool ReadNumber(std::string_view text, Number* number, int base = 10) {
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), *number, base);
    return !text.empty() && failure == std::errc() && end == text.data() + text.size();
}

// The options, or none with what is wrong in error.
std::optional<AgentOptions> Parse(const std::vector<std::string_view>& args, std::string* error) {
    AgentOptions options;
    const std::map<std::string_view, bool*> flags = {{"--single", &options.single},
                                                     {"--control", &options.control},
                                                     {"--stats", &options.stats},
                                                     {"--json", &options.json},
                                                     {"--help", &options.help}};
    const std::map<std::string_view, std::string*> texts = {{"--listen", &options.listen},
                                                            {"--log-config", &options.logConfig},
                                                            {"--control-at", &options.controlAt},
                                                            {"--side-channel", &options.sideChannel}};
    bool hasTimeout = false;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string_view arg = args[i];
        if (const auto flag = flags.find(arg); flag != flags.end()) {
            *flag->second = true;
            continue;
        }
        const auto text = texts.find(arg);
        if (text == texts.end() && arg != "--fd" && arg != "--ready-timeout") {
            *error = "unknown argument " + std::string(arg);
            return std::nullopt;
        }
        if (++i == args.size()) {
            *error = std::string(arg) + " needs a value";
            return std::nullopt;
        }
        if (text != texts.end()) {
            *text->second = args[i];
        } else if (arg == "--fd" && (!ReadNumber(args[i], &options.fd) || options.fd < 0)) {
            *error = "--fd takes a file descriptor, not \"" + std::string(args[i]) + "\"";
            return std::nullopt;
        } else if (arg == "--ready-timeout") {
            hasTimeout = true;
            if (!ReadNumber(args[i], &options.readyTimeoutMS)) {
                *error = "--ready-timeout takes milliseconds, not \"" + std::string(args[i]) + "\"";
                return std::nullopt;
            }
        }
    }
    const char* wrong = nullptr;
    if (!kSideChannels.contains(options.sideChannel)) wrong = "--side-channel is tcp or virtual";
    if (options.listen.empty() == (options.fd < 0)) wrong = "exactly one of --listen and --fd is needed";
    if (hasTimeout && !options.single) wrong = "--ready-timeout belongs to --single";
    if (options.json && !options.stats) wrong = "--json belongs to --stats";
    if (options.stats && options.control) wrong = "--stats and --control both want standard output";
    if (!wrong || options.help) return options;
    *error = wrong;
    return std::nullopt;
}

// The line for a request, empty if there is none of that kind.
std::string AnswerControl(const Agent& agent, const std::string& request) {
    constexpr std::string_view kCounts = "counts";
    uint64_t client = 0;
    if (!request.starts_with(kCounts)) return {};
    const std::string_view rest = std::string_view(request).substr(kCounts.size());
    if (!rest.empty() && (rest[0] != ' ' || !ReadNumber(rest.substr(1), &client, 16) || client == 0)) return {};
    return nlohmann::json(agent.Counts(client)).dump();
}

void ServeControl(const Agent& agent) {
    for (std::string line; std::getline(std::cin, line);) {
        const std::string answer = AnswerControl(agent, line);
        if (answer.empty()) {
            std::cerr << "usb-agent: unknown request \"" << line << "\"" << std::endl;
        } else {
            std::cout << answer << std::endl;
        }
    }
}

int Serve(const AgentOptions& options, const sigset_t& endings) {
    std::string error;
    ProgramLog log;
    if (!options.logConfig.empty() && !log.Start("UsbAgent", "usb-agent", options.logConfig, &error)) {
        fprintf(stderr, "usb-agent: %s\n", error.c_str());
        return 2;
    }
    Agent agent;
    AgentControl control([&agent](const std::string& request) { return AnswerControl(agent, request); });
    Agent::Options start;
    start.address = options.fd >= 0 ? "fd:" + std::to_string(options.fd) : options.listen;
    start.single = options.single;
    start.readyTimeoutMS = options.readyTimeoutMS;
    start.sideChannel = kSideChannels.at(options.sideChannel);
    start.onListening = [](const std::string& address) {
        if (!address.empty()) std::cout << nlohmann::json{{"listening", address}}.dump() << std::endl;
    };
    if ((!options.controlAt.empty() && !control.Listen(options.controlAt, &error)) || !agent.Start(start, &error)) {
        fprintf(stderr, "usb-agent: %s\n", error.c_str());
        return 1;
    }
    if (options.control) {
        ServeControl(agent);
    } else {
        std::optional<AgentStats> stats;
        if (options.stats) stats.emplace([&agent] { return agent.Sessions(); }, options.json, stdout);
        int signal = 0;
        sigwait(&endings, &signal);
    }
    const nlohmann::json counts = agent.Counts();
    const bool stopped = agent.Stop();
    std::cout << counts.dump() << std::endl;
    return stopped ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
    std::string error;
    const std::optional<AgentOptions> options = Parse({argv + 1, argv + argc}, &error);
    if (!options) {
        fprintf(stderr, "usb-agent: %s\n", error.c_str());
        return 2;
    }
    if (options->help) {
        fputs(kUsage, stdout);
        return 0;
    }
    signal(SIGPIPE, SIG_IGN);
    sigset_t endings;
    sigemptyset(&endings);
    if (!options->control) {
        sigaddset(&endings, SIGINT);
        sigaddset(&endings, SIGTERM);
    }
    sigprocmask(SIG_BLOCK, &endings, nullptr);
    return Serve(*options, endings);
} catch (const std::exception& error) {
    fprintf(stderr, "usb-agent: %s\n", error.what());
    return 1;
}
