// What the report of a replay has to say in any case.
#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

uint64_t Messages(const nlohmann::json& counts);

// For each run that ended in order, of one client or several, disturbed or not.
void ExpectSoundAccount(const nlohmann::json& report);
