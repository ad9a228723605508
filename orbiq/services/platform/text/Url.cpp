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

bool passesUnescaped(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("-._~").find(character) != std::string_view::npos;
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
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string escaped;
  for (const char character : text.view()) {
    if (passesUnescaped(character)) {
      escaped += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      escaped += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return escaped;
}

}  // namespace orbiq
