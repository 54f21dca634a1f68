// The command line of log-view.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "tools/logview/RecordStream.h"

enum class ColorChoice { Auto, Always, Never };

struct ViewOptions {
    std::vector<std::string> files;
    RecordFilter filter;
    ColorChoice color = ColorChoice::Auto;
    bool follow = false;
    bool summary = false;
    bool json = false;
    bool help = false;
    bool version = false;
};

// Reads the arguments after the program name. A value stands in the next argument or behind '='; "--" ends the options;
// a later option overrides an earlier one. Gives the options, or one line that says what is wrong.
std::variant<ViewOptions, std::string> ParseViewOptions(const std::vector<std::string>& args);

// The text of --help.
const char* ViewUsage();
