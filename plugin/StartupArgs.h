// The startup arguments of the plug-in and the text form in which the host hands them over.
#pragma once

#include <map>
#include <string>
#include <string_view>

// The arguments that the plug-in reads. Empty until a value has arrived.
struct UsbStartupArgs {
    std::string isUsbVChannelEnabled;  // "TRUE" in any case: the daemon's messages travel on the virtual channel
    std::string pid;                   // the desktop identifier negotiated with the agent, cleaned up
    std::string isLoadUsbdNeeded;      // "TRUE" in any case: the daemon starts with the plug-in
};

// Keys and values of one argument string, ordered bytewise by key.
class StartupArgsMap {
public:
    // Adds the pairs of text: comma-separated tokens, a key and a value in turn, each byte that isn't an ASCII letter
    // or digit sent as a slash and two hexadecimal digits of either case. Unescaped bytes are taken as they are.
    // Returns false if the number of tokens is odd (the last is ignored) or an escape is malformed (the pairs ahead
    // count).
    bool Parse(std::string_view text);

    // Copies the value of key into out. False, out untouched, if there is none.
    bool Get(const std::string& key, std::string& out) const;

    // Inserts or overwrites.
    void Set(const std::string& key, const std::string& value);

private:
    std::map<std::string, std::string> values;
};

// The number of bytes that a desktop identifier keeps ahead of a tail that begins at its last '@'.
inline constexpr size_t kPidLimit = 128;

// Turns backslashes into slashes, then cuts what is longer than kPidLimit: with no '@' to the limit; with the last '@'
// beyond index kPidLimit to the first kPidLimit bytes followed by the tail; otherwise the length stays.
void StartupArgs_CleanUpPid(std::string& pid);
