#include "tools/doctor/Shown.h"

#include <curl/curl.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include "orbiq/services/platform/text/Url.h"
#include "tools/requests/Text.h"

namespace orbiq::doctor {
namespace {

constexpr char kHidden[] = "...";
constexpr std::size_t kMostColumns = 120;

/// Keeps the names: they tell which server it is, and only the values are secrets.
std::string withoutQueryValues(const std::string& text) {
  const std::size_t query = std::min(text.find_first_of("?#"), text.size());
  std::string shown = text.substr(0, query);
  bool isValue = false;
  for (const char each : text.substr(query)) {
    const bool isSeparator = std::string_view("?&;#").find(each) != std::string_view::npos;
    if (isSeparator) isValue = false;
    if (isValue) continue;
    shown += each;
    isValue = each == '=' || each == '#';
    if (isValue) shown += kHidden;
  }
  return shown;
}

}  // namespace

std::string shownUrl(std::string_view text) {
  const std::optional<Url> url = Url::fromText(String(text));
  std::string shown = url ? url->textWithoutUser() : std::string(text);
  if (!url && shown.find('@') != std::string::npos) return "(a text with a user's name)";
  return requests::shortened(withoutQueryValues(shown), kMostColumns);
}

std::string shownProxy(const std::string& text) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
  constexpr unsigned kLenient = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), kLenient) != CURLUE_OK) {
    return "(a text that is no URL)";
  }
  for (const CURLUPart secret : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS}) {
    curl_url_set(url.get(), secret, nullptr, 0);
  }
  char* shown = nullptr;
  if (curl_url_get(url.get(), CURLUPART_URL, &shown, 0) != CURLUE_OK) return "(set)";
  const std::unique_ptr<char, decltype(&curl_free)> owner(shown, curl_free);
  return requests::shortened(shown, kMostColumns);
}

std::string inQuotes(std::string_view text) {
  return std::string("\"").append(requests::shortened(std::string(text), kMostColumns)) + "\"";
}

std::string shownDuration(double seconds) {
  struct Unit {
    double seconds;
    const char* name;
  };
  const double length = std::abs(seconds);
  Unit unit{1, "second"};
  for (const Unit larger : {Unit{60, "minute"}, Unit{3600, "hour"}, Unit{86400, "day"}}) {
    if (length >= 2 * larger.seconds) unit = larger;
  }
  const long count = std::lround(length / unit.seconds);
  return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
}

std::string shownTime(const Date& time) {
  std::string text = requests::utcTime(std::floor(time.secondsSince1970()));
  if (const std::size_t fraction = text.find('.'); fraction != std::string::npos) {
    text.resize(fraction);
  }
  std::ranges::replace(text, 'T', ' ');
  std::erase(text, 'Z');
  return text + " UTC";
}

std::string causeOf(int error) {
  const char* const text = strerrordesc_np(error);
  return text != nullptr ? text : "error " + std::to_string(error);
}

}  // namespace orbiq::doctor
