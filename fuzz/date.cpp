// Any text as a Date header.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "orbiq/services/platform/time/HttpDate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto date = orbiq::parseHttpDate(text);
  // Between the years 0 and 10,000 the header has room for no more.
  if (date && !(std::abs(date->secondsSinceReferenceDate) < 3.2e11)) std::abort();
  return 0;
}
