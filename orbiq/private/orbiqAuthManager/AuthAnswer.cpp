#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"

#include <algorithm>

#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

/// Takes the text up to the separator off the front, and the separator with it.
std::string_view takeUpTo(char separator, std::string_view& text) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view piece = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return piece;
}

}  // namespace

AuthFields parseAuthAnswer(std::string_view body) {
  AuthFields fields;
  if (!isValidUtf8(body)) return fields;
  while (!body.empty()) {
    std::string_view field = takeUpTo('|', body);
    if (field.find('=') == std::string_view::npos) continue;
    const std::string_view key = takeUpTo('=', field);
    std::string value(takeUpTo('=', field));
    std::erase(value, '"');
    fields.insert_or_assign(std::string(key), std::move(value));
  }
  return fields;
}

}  // namespace orbiq
