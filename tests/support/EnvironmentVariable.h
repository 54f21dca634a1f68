// An environment variable that holds a value for a scope; null unsets it. The old value comes back afterwards.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

class EnvironmentVariable {
public:
    EnvironmentVariable(const char* name, const char* value) : name(name) {
        if (const char* old = std::getenv(name)) saved = old;
        Put(value);
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;
    ~EnvironmentVariable() { Put(saved ? saved->c_str() : nullptr); }

private:
    void Put(const char* value) const { value ? setenv(name, value, 1) : unsetenv(name); }

    const char* const name;
    std::optional<std::string> saved;
};
