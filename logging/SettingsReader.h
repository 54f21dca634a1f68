// Where a logger asks for its settings.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/RCObject.h"

// Each reading operation returns whether there is a usable value, and writes its output only then. The last argument is
// true at every call and free for other kinds of reader.
class SettingsReader : public RCObject {
public:
    virtual bool IsFileReader() = 0;
    // The label of the reader, the function text of the lines that tell of a change.
    virtual const char* GetName() = 0;
    virtual bool GetString(const std::string& key, int index, std::string& value, bool) = 0;
    virtual bool GetUInt(const std::string& key, uint32_t* value, bool) = 0;
    virtual bool GetBool(const std::string& key, bool* value, bool) = 0;
    // Where that key would come from, for people to read.
    virtual std::string Describe(const std::string& key) = 0;
};
