#include "runtime/KxPropertyManager.h"

bool KxPropertyManager::Get(const std::string& key, std::string* value) const {
    const auto found = properties.find(key);
    if (found == properties.end()) return false;
    if (value) *value = found->second;
    return true;
}

void KxPropertyManager::Set(const std::string& key, const std::string& value) {
    properties.insert_or_assign(key, value);
}

bool KxPropertyManager::Erase(const std::string& key) {
    return properties.erase(key) != 0;
}

void KxPropertyManager::Clear() {
    properties.clear();
}

size_t KxPropertyManager::Count() const {
    return properties.size();
}
