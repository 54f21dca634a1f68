// usb-agent: the other end of a replay, the USB plug-in of the remote desktop in the smallest form that answers.

#include <signal.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/replay/Agent.h"
#include "tools/replay/ProgramLog.h"

namespace {

constexpr char kUsage[] =
    "Usage: usb-agent (--listen unix:PATH | --listen tcp:ADDRESS:PORT | --fd N) [--control] [--log-config FILE]\n"
    "Serves one client of the USB channel after the other and prints its counts as JSON at the end.\n"
    "\n"
    "  --listen ADDRESS  wait for the client there; port 0 and \"unix:\" choose an address and print it\n"
    "  --fd N            serve the connected socket that was inherited under that number\n"
    "  --control         answer each line \"counts\" on standard input with the counts; end with the input\n"
    "  --log-config FILE write a log of its own, with the settings in FILE\n"
    "\n"
    "Without --control it ends on SIGINT or SIGTERM.\n";

struct AgentOptions {
    std::string listen;
    std::string logConfig;
    int fd = -1;
    bool control = false;
    bool help = false;
};

// The options, or none with what is wrong in error.
std::optional<AgentOptions> Parse(const std::vector<std::string_view>& args, std::string* error) {
    AgentOptions options;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string_view arg = args[i];
        const bool takesValue = arg == "--listen" || arg == "--fd" || arg == "--log-config";
        if (takesValue && i + 1 == args.size()) {
            *error = std::string(arg) + " needs a value";
            return std::nullopt;
        }
        if (arg == "--listen") {
            options.listen = args[++i];
        } else if (arg == "--fd") {
            const std::string_view text = args[++i];
            const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), options.fd);
            if (failure != std::errc() || end != text.data() + text.size() || options.fd < 0) {
                *error = "--fd takes a file descriptor, not \"" + std::string(text) + "\"";
                return std::nullopt;
            }
        } else if (arg == "--log-config") {
            options.logConfig = args[++i];
        } else if (arg == "--control") {
            options.control = true;
        } else if (arg == "--help") {
            options.help = true;
        } else {
            *error = "unknown argument " + std::string(arg);
            return std::nullopt;
        }
    }
    if (!options.help && options.listen.empty() == (options.fd < 0)) {
        *error = "exactly one of --listen and --fd is needed";
        return std::nullopt;
    }
    return options;
}

void PrintCounts(Agent& agent) {
    std::cout << nlohmann::json(agent.Counts()).dump() << std::endl;
}

void ServeControl(Agent& agent) {
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "counts")
            PrintCounts(agent);
        else
            std::cerr << "usb-agent: unknown request \"" << line << "\"" << std::endl;
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
    if (!(options.fd >= 0 ? agent.Attach(options.fd, &error) : agent.Listen(options.listen, &error))) {
        fprintf(stderr, "usb-agent: %s\n", error.c_str());
        return 1;
    }
    if (options.fd < 0) std::cout << nlohmann::json{{"listening", agent.Address()}}.dump() << std::endl;
    if (options.control) {
        ServeControl(agent);
    } else {
        int signal = 0;
        sigwait(&endings, &signal);
    }
    PrintCounts(agent);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
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
}
