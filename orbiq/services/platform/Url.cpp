#include "orbiq/services/platform/Url.h"

#include <uriparser/Uri.h>

#include <string_view>
#include <utility>

namespace orbiq {
namespace {

std::string textOf(const UriTextRangeA& range) {
  return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
}

char lowerCase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

bool passesUnescaped(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("-._~").find(character) != std::string_view::npos;
}

}  // namespace

Url::Url(std::string text, std::string scheme, std::string host)
    : _text(std::move(text)), _scheme(std::move(scheme)), _host(std::move(host)) {}

std::optional<Url> Url::fromText(const String& text) {
  if (text.isEmpty()) return std::nullopt;
  std::string whole = text.toStdString();
  UriUriA parts;
  const char* refusedAt = nullptr;
  if (uriParseSingleUriExA(&parts, whole.data(), whole.data() + whole.size(), &refusedAt) !=
      URI_SUCCESS) {
    return std::nullopt;  // a failed parse has freed its parts itself
  }
  std::string scheme = textOf(parts.scheme);
  std::string host = textOf(parts.hostText);
  uriFreeUriMembersA(&parts);
  for (char& character : scheme) character = lowerCase(character);
  return Url(std::move(whole), std::move(scheme), std::move(host));
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
