#pragma once

#include <string>
#include <vector>

#include "tools/doctor/Steps.h"

namespace orbiq::doctor {

/// 0 if no step failed, otherwise the status of the first one that did.
int exitStatusOf(const std::vector<Walked>& walked);
/// For people, in colours if wanted: a step, and the lines at the end.
/// @{
std::string asText(const Walked& walked, bool isColoured);
std::string summaryOf(const std::vector<Walked>& walked, bool isColoured);
/// @}
/// For programs.
std::string asJson(const std::vector<Walked>& walked);

}  // namespace orbiq::doctor
