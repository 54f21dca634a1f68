// Extended regular expressions of the system's library. Those of the standard library don't compile under the
// sanitizers of GCC 12 without false warnings.
#pragma once

#include <gtest/gtest.h>
#include <regex.h>

#include <string>
#include <vector>

// Whether text has a part like pattern, in which "\d" is a digit, "." any character and "^" and "$" are the ends of the
// text. groups, which may be null, receives the part, and those of its parts that stand in parentheses.
inline bool Finds(const std::string& text, const std::string& pattern, std::vector<std::string>* groups = nullptr) {
    std::string portable;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern.compare(i, 2, "\\d") == 0) {
            portable += "[0-9]";
            ++i;
        } else if (pattern[i] == '\\') {
            portable += pattern.substr(i++, 2);
        } else {
            portable += pattern[i];
        }
    }
    regex_t compiled;
    if (regcomp(&compiled, portable.c_str(), REG_EXTENDED) != 0) {
        ADD_FAILURE() << "no pattern: " << pattern;
        return false;
    }
    std::vector<regmatch_t> parts(compiled.re_nsub + 1);
    const bool found = regexec(&compiled, text.c_str(), parts.size(), parts.data(), 0) == 0;
    regfree(&compiled);
    if (found && groups) {
        groups->clear();
        for (const regmatch_t& part : parts) {
            const auto begin = static_cast<size_t>(part.rm_so < 0 ? 0 : part.rm_so);
            const auto end = static_cast<size_t>(part.rm_so < 0 ? 0 : part.rm_eo);
            groups->push_back(text.substr(begin, end - begin));
        }
    }
    return found;
}

// Whether the whole text is like pattern.
inline bool Matches(const std::string& text, const std::string& pattern) {
    return Finds(text, "^(" + pattern + ")$");
}

// The pattern of that very text.
inline std::string Quoted(const std::string& text) {
    std::string pattern;
    for (const char c : text)
        pattern +=
            std::string("[](){}.*+?^$\\|").find(c) == std::string::npos ? std::string(1, c) : std::string{'\\', c};
    return pattern;
}
