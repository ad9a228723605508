#pragma once

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace orbiq::test {

/// How often a test repeats: `usual`, or as often as it is asked to by `./dev torture`.
inline std::size_t tortured(std::size_t usual, std::size_t much) {
  return std::getenv("ORBIQ_TORTURE") != nullptr ? much : usual;
}

/// What a test draws its random numbers from: printed, and to be given again in ORBIQ_SEED.
inline std::mt19937 seededRandom() {
  const char* const given = std::getenv("ORBIQ_SEED");
  const auto seed = given != nullptr ? static_cast<std::mt19937::result_type>(std::stoul(given))
                                     : std::random_device{}();
  std::cout << "ORBIQ_SEED=" << seed << std::endl;
  return std::mt19937(seed);
}

}  // namespace orbiq::test
