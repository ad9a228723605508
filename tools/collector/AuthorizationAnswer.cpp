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
  const Malformed malformed = behaviour.malformed;
  if (malformed != Malformed::Empty) {
    answer.body = "access=" + behaviour.access + "|host=" + behaviour.host.value_or(ownHost);
    if (malformed != Malformed::MissingField) answer.body += "|cmsVI=" + std::to_string(session);
    if (malformed == Malformed::NotUtf8) answer.body += "\xff";
  }
  answer.declaredLength = answer.body.size() + (malformed == Malformed::Cut ? kMissingBytes : 0);
  if (malformed == Malformed::BadDate) {
    answer.date = "yesterday";
  } else if (malformed != Malformed::NoDate) {
    answer.date = httpDate(now + behaviour.dateSkew);
  }
  return answer;
}

}  // namespace orbiq::collector
