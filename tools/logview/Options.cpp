#include "tools/logview/Options.h"

#include <strings.h>

#include <charconv>
#include <functional>
#include <optional>
#include <string_view>

namespace {

// Takes the value (empty for a flag) into the options; gives what a good value looks like when it is none.
using Setter = std::function<std::optional<std::string>(ViewOptions&, const std::string&)>;

struct OptionRule {
    std::string_view name;
    bool hasValue;
    Setter set;
};

Setter Flag(bool ViewOptions::*field) {
    return [field](ViewOptions& options, const std::string&) {
        options.*field = true;
        return std::optional<std::string>();
    };
}

Setter Text(std::string RecordFilter::*field) {
    return [field](ViewOptions& options, const std::string& text) -> std::optional<std::string> {
        if (text.empty()) return "some text";
        options.filter.*field = text;
        return std::nullopt;
    };
}

std::optional<std::string> SetLevel(ViewOptions& options, const std::string& text) {
    for (int level = kLogAlways; level <= kLogNever; level++) {
        if (strcasecmp(text.c_str(), LogLevelName(level)) != 0) continue;
        options.filter.level = level;
        return std::nullopt;
    }
    return "ALWAYS, ERROR, WARN, INFO, DEBUG, TRACE, VERBOSE or NEVER";
}

std::optional<std::string> SetThread(ViewOptions& options, const std::string& text) {
    std::string_view digits = text;
    if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (error != std::errc() || end != digits.data() + digits.size()) return "a hexadecimal thread number";
    options.filter.thread = value;
    return std::nullopt;
}

std::optional<std::string> SetColor(ViewOptions& options, const std::string& text) {
    if (text == "auto")
        options.color = ColorChoice::Auto;
    else if (text == "always")
        options.color = ColorChoice::Always;
    else if (text == "never")
        options.color = ColorChoice::Never;
    else
        return "auto, always or never";
    return std::nullopt;
}

const std::vector<OptionRule>& Rules() {
    static const std::vector<OptionRule> rules = {
        {"-f", false, Flag(&ViewOptions::follow)},
        {"--follow", false, Flag(&ViewOptions::follow)},
        {"--level", true, SetLevel},
        {"--thread", true, SetThread},
        {"--function", true, Text(&RecordFilter::function)},
        {"--text", true, Text(&RecordFilter::text)},
        {"--summary", false, Flag(&ViewOptions::summary)},
        {"--json", false, Flag(&ViewOptions::json)},
        {"--color", true, SetColor},
        {"--help", false, Flag(&ViewOptions::help)},
        {"--version", false, Flag(&ViewOptions::version)},
    };
    return rules;
}

const OptionRule* FindRule(std::string_view name) {
    for (const OptionRule& rule : Rules()) {
        if (rule.name == name) return &rule;
    }
    return nullptr;
}

}  // namespace

std::variant<ViewOptions, std::string> ParseViewOptions(const std::vector<std::string>& args) {
    ViewOptions options;
    bool onlyFiles = false;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string& arg = args[i];
        if (onlyFiles || arg.empty() || arg[0] != '-') {
            if (arg.empty()) return std::string("an empty file name");
            options.files.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyFiles = true;
            continue;
        }
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        const OptionRule* rule = FindRule(name);
        if (!rule) return "unknown option " + name;
        if (!rule->hasValue && equals != std::string::npos) return name + " takes no value";
        std::string value;
        if (rule->hasValue) {
            if (equals == std::string::npos && i + 1 == args.size()) return name + " needs a value";
            value = equals == std::string::npos ? args[++i] : arg.substr(equals + 1);
        }
        if (const auto wanted = rule->set(options, value)) {
            return std::string(name).append(" takes ").append(*wanted).append(", not \"").append(value).append("\"");
        }
    }
    if (options.files.empty() && !options.help && !options.version) return std::string("no log file named");
    return options;
}

const char* ViewUsage() {
    return "Usage: log-view [options] FILE...\n"
           "Prints log files for people, several in the order of their first "
           "lines.\n"
           "\n"
           "  -f, --follow     go on with what is written, also into the files "
           "that the log rolls to, until SIGINT\n"
           "  --level NAME     lines of that level and more important ones: "
           "ALWAYS, ERROR, WARN, INFO, DEBUG, TRACE,\n"
           "                   VERBOSE, NEVER\n"
           "  --thread HEX     lines of that thread\n"
           "  --function TEXT  lines with that in the function name\n"
           "  --text TEXT      lines with that in the text\n"
           "  --summary        count the lines per level and function instead\n"
           "  --json           one JSON object for each line of the log, or of "
           "the summary\n"
           "  --color WHEN     auto (on a terminal), always or never\n"
           "  --help           print this text\n"
           "  --version        print the version\n"
           "\n"
           "A line that doesn't begin with a time stamp belongs to the one above "
           "it. Notices of the log itself, as about\n"
           "lines that were dropped, are shown whatever the filter.\n"
           "\n"
           "Exit status: 0 all was printed, 1 it could not be read or written to "
           "the end, 2 bad arguments or files.\n";
}
