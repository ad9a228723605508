// Any body as an authorization server's answer.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  std::size_t read = 0;
  for (const auto& [key, value] : orbiq::parseAuthAnswer(body)) {
    read += key.size() + value.size();
    const orbiq::AccessMode mode = orbiqAuthManager::accessModeFromString(value);
    if (mode > orbiq::AccessModeDenied) std::abort();
  }
  // Nothing is made up.
  if (read > size) std::abort();
  return 0;
}
