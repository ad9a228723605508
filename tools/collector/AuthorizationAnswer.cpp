#include "tools/collector/AuthorizationAnswer.h"

#include <array>
#include <ctime>

namespace orbiq::collector {
namespace {

constexpr std::size_t kMissingBytes = 64;

/// In the "C" locale, which this program never leaves.
std::string httpDate(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  return {text.data(),
          std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts)};
}

}  // namespace

AuthorizationAnswer authorizationAnswer(const Behaviour& behaviour, const std::string& ownHost,
                                        std::uint64_t session,
                                        std::chrono::system_clock::time_point now) {
  AuthorizationAnswer answer;
  const std::string& malformed = behaviour.malformed;
  if (malformed != "empty") {
    answer.body = "access=" + behaviour.access + "|host=" + behaviour.host.value_or(ownHost);
    if (malformed != "missing-field") answer.body += "|cmsVI=" + std::to_string(session);
    if (malformed == "not-utf8") answer.body += "\xff";
  }
  answer.declaredLength = answer.body.size() + (malformed == "cut" ? kMissingBytes : 0);
  if (malformed == "bad-date") {
    answer.date = "yesterday";
  } else if (malformed != "no-date") {
    answer.date = httpDate(now + behaviour.dateSkew);
  }
  return answer;
}

}  // namespace orbiq::collector
