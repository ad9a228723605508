#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "orbiq/services/platform/String.h"

namespace orbiq {

/// The parameters of a hit, in the order of their keys.
using Parameters = std::map<std::string, String, std::less<>>;

/// How a request holds its parameters: shared, and replaced whole instead of changed.
using SharedParameters = std::shared_ptr<const Parameters>;

}  // namespace orbiq
