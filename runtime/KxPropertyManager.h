// A set of texts by key, in the bytewise order of the keys. It has no lock: its owner guards it.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "runtime/RCObject.h"

class KxPropertyManager : public RCObject {
public:
    // Returns whether key is present; value, which may be null, receives its text and is left alone otherwise.
    bool Get(const std::string& key, std::string* value) const;

    // Inserts the text or replaces the one that is there.
    void Set(const std::string& key, const std::string& value);

    // Returns whether something went.
    bool Erase(const std::string& key);

    void Clear();
    size_t Count() const;

private:
    std::map<std::string, std::string> properties;
};
