#include "orbiq/services/platform/text/Url.h"

#include <uriparser/Uri.h>

#include <memory>
#include <new>
#include <string_view>

#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

std::string textOf(const UriTextRangeA& range) {
  return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
}

struct FreeParts {
  void operator()(UriUriA* parts) const { uriFreeUriMembersA(parts); }
};

}  // namespace

std::optional<Url> Url::fromText(const String& text) {
  if (text.isEmpty()) return std::nullopt;
  Url url;
  url._text = text.toStdString();
  const char* const begin = url._text.data();
  UriUriA parts;
  const char* refusedAt = nullptr;
  const int result = uriParseSingleUriExA(&parts, begin, begin + url._text.size(), &refusedAt);
  // A failed parse has freed its parts itself.
  if (result == URI_ERROR_MALLOC) throw std::bad_alloc();
  if (result != URI_SUCCESS) return std::nullopt;
  const std::unique_ptr<UriUriA, FreeParts> owner(&parts);
  url._scheme = textOf(parts.scheme);
  url._host = textOf(parts.hostText);
  if (parts.userInfo.first != nullptr) {
    url._userBegin = static_cast<std::size_t>(parts.userInfo.first - begin);
    url._userLength = static_cast<std::size_t>(parts.userInfo.afterLast + 1 - parts.userInfo.first);
  }
  for (char& character : url._scheme) character = asciiLowerCase(character);
  return url;
}

std::string Url::textWithoutUser() const {
  std::string text = _text;
  return text.erase(_userBegin, _userLength);
}

String percentEscaped(const String& text) {
  if (text.isNull()) return nullptr;
  std::string escaped;
  appendEscaped(escaped, text.view(), [](char character) {
    return isLowerCaseOrDigit(character) || (character >= 'A' && character <= 'Z') ||
           std::string_view("-._~").find(character) != std::string_view::npos;
  });
  return escaped;
}

}  // namespace orbiq
