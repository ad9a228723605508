#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "tools/requests/LiveFile.h"
#include "tools/requests/RequestsArchive.h"

namespace orbiq::requests {

/// For programs: all that the file holds, each request and each archived object with every key.
nlohmann::ordered_json toJson(const std::string& path, const Snapshot& snapshot,
                              RequestsArchive& archive);
/// Text of that, ASCII alone.
std::string dumped(const nlohmann::ordered_json& json, bool isOnOneLine);

}  // namespace orbiq::requests
