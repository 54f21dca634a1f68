#include "tools/replay/Options.h"

#include <charconv>
#include <functional>
#include <optional>
#include <string_view>

namespace {

constexpr uint32_t kMaxLoop = 1000000;
constexpr uint32_t kMaxThreads = 64;
constexpr uint32_t kMaxClients = 64;
constexpr uint32_t kMaxInterruptEvery = 1000000000;

// Takes the value (empty for a flag) into the options; gives what a good value looks like when it is none.
using Setter = std::function<std::optional<std::string>(ReplayOptions&, std::string_view)>;

struct OptionRule {
    std::string_view name;
    bool hasValue;
    Setter set;
};

Setter Flag(bool ReplayOptions::*field) {
    return [field](ReplayOptions& options, std::string_view) {
        options.*field = true;
        return std::optional<std::string>();
    };
}

Setter Number(uint32_t ReplayOptions::*field, uint32_t limit) {
    return [field, limit](ReplayOptions& options, std::string_view text) -> std::optional<std::string> {
        uint32_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > limit)
            return "a number from 1 to " + std::to_string(limit);
        options.*field = value;
        return std::nullopt;
    };
}

// Any text but the empty one; wanted says what it is.
Setter Text(std::string ReplayOptions::*field, const char* wanted) {
    return [field, wanted](ReplayOptions& options, std::string_view text) -> std::optional<std::string> {
        if (text.empty()) return wanted;
        options.*field = text;
        return std::nullopt;
    };
}

std::optional<std::string> SetTransport(ReplayOptions& options, std::string_view text) {
    if (text != "unix" && text != "tcp") return "unix or tcp";
    options.transport = text == "unix" ? Transport::Unix : Transport::Tcp;
    return std::nullopt;
}

std::optional<std::string> SetAgentMode(ReplayOptions& options, std::string_view text) {
    if (text != "single" && text != "multi") return "single or multi";
    options.agentMode = text == "single" ? AgentMode::Single : AgentMode::Multi;
    return std::nullopt;
}

std::optional<std::string> SetSideChannel(ReplayOptions& options, std::string_view text) {
    if (text != "tcp" && text != "virtual") return "tcp or virtual";
    options.sideChannel = text;
    return std::nullopt;
}

const std::vector<OptionRule>& Rules() {
    static const std::vector<OptionRule> rules = {
        {"--json", false, Flag(&ReplayOptions::json)},
        {"--timed", false, Flag(&ReplayOptions::timed)},
        {"--start-by-client", false, Flag(&ReplayOptions::startByClient)},
        {"--help", false, Flag(&ReplayOptions::help)},
        {"--version", false, Flag(&ReplayOptions::version)},
        {"--loop", true, Number(&ReplayOptions::loop, kMaxLoop)},
        {"--threads", true, Number(&ReplayOptions::threads, kMaxThreads)},
        {"--interrupt-every", true, Number(&ReplayOptions::interruptEvery, kMaxInterruptEvery)},
        {"--clients", true, Number(&ReplayOptions::clients, kMaxClients)},
        {"--transport", true, SetTransport},
        {"--agent-mode", true, SetAgentMode},
        {"--side-channel", true, SetSideChannel},
        {"--log-config", true, Text(&ReplayOptions::logConfig, "a file name")},
        {"--agent", true, Text(&ReplayOptions::agentAddress, "an address")},
        {"--agent-control", true, Text(&ReplayOptions::agentControl, "a path")},
        {"--as-client", false, Flag(&ReplayOptions::asClient)},
    };
    return rules;
}

const OptionRule* FindRule(std::string_view name) {
    for (const OptionRule& rule : Rules())
        if (rule.name == name) return &rule;
    return nullptr;
}

}  // namespace

std::variant<ReplayOptions, std::string> ParseOptions(const std::vector<std::string>& args) {
    ReplayOptions options;
    bool onlyFiles = false;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string_view arg = args[i];
        if (onlyFiles || arg.empty() || arg[0] != '-') {
            if (arg.empty()) return std::string("an empty file name");
            options.captures.emplace_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyFiles = true;
            continue;
        }
        const size_t equals = arg.find('=');
        const std::string name(arg.substr(0, equals));
        const OptionRule* rule = FindRule(name);
        if (!rule) return "unknown option " + name;
        if (!rule->hasValue && equals != std::string_view::npos) return name + " takes no value";
        std::string_view value;
        if (rule->hasValue) {
            if (equals == std::string_view::npos && i + 1 == args.size()) return name + " needs a value";
            value = equals == std::string_view::npos ? std::string_view(args[++i]) : arg.substr(equals + 1);
        }
        if (const auto wanted = rule->set(options, value))
            return name + " takes " + *wanted + ", not \"" + std::string(value) + "\"";
    }
    if (options.agentAddress.empty() != options.agentControl.empty())
        return std::string("--agent and --agent-control need each other");
    return options;
}

std::vector<std::string> AgentArguments(const ReplayOptions& options) {
    const char* address = options.transport == Transport::Unix ? "unix:" : "tcp:127.0.0.1:0";
    std::vector<std::string> arguments = {"--listen", address, "--control"};
    if (options.agentMode == AgentMode::Single) arguments.push_back("--single");
    if (!options.sideChannel.empty()) arguments.insert(arguments.end(), {"--side-channel", options.sideChannel});
    return arguments;
}

const char* ReplayUsage() {
    return "Usage: usb-replay [options] [CAPTURE.pcap...]\n"
           "Replays recorded USB traffic through the plug-in to an agent process and back, and checks what returns.\n"
           "Without a capture the small one that is shipped is replayed.\n"
           "\n"
           "  --loop N             replay everything N times (1)\n"
           "  --threads N          send from N daemon threads (1)\n"
           "  --clients N          replay in N client processes at once (1 to 64) and report on all of them together\n"
           "  --transport KIND     unix or tcp (unix)\n"
           "  --agent-mode MODE    multi: one agent serves all clients (multi); single: an agent serves one client at\n"
           "                       a time, so each client gets an agent of its own\n"
           "  --side-channel TYPE  move the data objects to a side channel of the agent's, tcp or virtual\n"
           "  --agent ADDRESS      replay against a usb-agent that listens there already, with the control socket "
           "that\n"
           "  --agent-control PATH it has been told with --control-at; the three options above are the agent's then\n"
           "  --timed              keep the gaps between the records as recorded\n"
           "  --interrupt-every N  take the channel down and up again after each N messages\n"
           "  --start-by-client    let the embedding client start the daemon\n"
           "  --log-config FILE    write a log of usb-replay's own, with the settings in FILE\n"
           "  --json               print one JSON object on standard output\n"
           "  --help               print this text\n"
           "  --version            print the version\n"
           "\n"
           "Exit status: 0 nothing lost and nothing changed on the way, 1 otherwise, 2 bad arguments or captures.\n";
}
