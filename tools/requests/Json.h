#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "tools/requests/LiveFile.h"
#include "tools/requests/RequestsArchive.h"

namespace orbiq::requests {

/// For programs: all that the file holds, each request and each archived object with every key. One
/// after the other, so that they are never all in memory. ASCII alone.
void printJson(std::ostream& out, const std::string& path, const Snapshot& snapshot,
               RequestsArchive& archive, bool isOnOneLine);
/// Text of a value, ASCII alone.
std::string dumped(const nlohmann::ordered_json& json, bool isOnOneLine);

}  // namespace orbiq::requests
