// Where a request is sent, and the edits of its parameters.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>

#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/platform/base/Ask.h"

using orbiq::ask;

namespace {

constexpr std::string_view kStateKey = "cmsPS";
constexpr std::string_view kStoppedState = "12";
constexpr std::string_view kRankKey = "cmsRK";

/// The number at the start of the text, behind blanks; 0 if there is none. Saturates.
std::int64_t integerValue(const orbiq::Parameters& parameters, std::string_view key) {
  const auto found = parameters.find(key);
  if (found == parameters.end()) return 0;
  std::string_view text = found->value.view();
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc::result_out_of_range) return number;
  return text.starts_with('-') ? INT64_MIN : INT64_MAX;
}

std::int64_t nextRank(std::int64_t rank) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(rank) + 1);
}

}  // namespace

bool orbiqRequest::isSentToSerial() const { return (_sendingMode | 2U) == 2U; }

std::shared_ptr<orbiqAccess> orbiqRequest::currentAccess() const {
  return ask(_auth, &orbiqAuth::currentAccess);
}

std::optional<orbiq::Url> orbiqRequest::url() const {
  const std::shared_ptr<orbiqAccess> access = currentAccess();
  if (!access) return std::nullopt;
  if (!isSentToSerial()) return orbiq::Url::fromText(access->host());
  // A null serial reads "(null)", which is a text like any other.
  return orbiq::Url::fromText(access->serial().description());
}

void orbiqRequest::transformToStop() {
  if (!_parameters) return;
  orbiq::Parameters stop = *_parameters;
  stop.insert_or_assign(kStateKey, kStoppedState);
  stop.insert_or_assign(kRankKey, std::to_string(nextRank(integerValue(stop, kRankKey))));
  _parameters = std::make_shared<const orbiq::Parameters>(std::move(stop));
}

void orbiqRequest::setTheRank(std::int64_t rank) {
  if (!_parameters) return;
  orbiq::Parameters ranked = *_parameters;
  ranked.insert_or_assign(kRankKey, std::to_string(rank));
  _parameters = std::make_shared<const orbiq::Parameters>(std::move(ranked));
}

orbiq::String orbiqRequest::urlEncode(const orbiq::String& text) const {
  return orbiq::percentEscaped(text);
}
