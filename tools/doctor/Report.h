#pragma once

#include <string>
#include <vector>

#include "tools/doctor/Steps.h"

namespace orbiq::doctor {

/// 0 if no step failed, otherwise the status of the first one that did.
int exitStatusOf(const std::vector<Walked>& walked);
/// For people, in colours if wanted.
std::string asText(const std::vector<Walked>& walked, bool isColoured);
/// For programs.
std::string asJson(const std::vector<Walked>& walked);

}  // namespace orbiq::doctor
