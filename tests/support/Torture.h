#pragma once

#include <cstddef>
#include <cstdlib>

namespace orbiq::test {

/// How often a test repeats: `usual`, or as often as it is asked to by `./dev torture`.
inline std::size_t tortured(std::size_t usual, std::size_t much) {
  return std::getenv("ORBIQ_TORTURE") != nullptr ? much : usual;
}

}  // namespace orbiq::test
