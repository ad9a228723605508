#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

unsigned byteAt(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

std::size_t utf16Units(const Utf8Character& character) {
  return character.codePoint > 0xFFFF ? 2 : 1;
}

}  // namespace

Utf8Character decodeUtf8(std::string_view bytes) noexcept {
  const unsigned lead = byteAt(bytes, 0);
  if (lead < 0x80) return {lead, 1, true};
  const Utf8Character malformed{kReplacement, 1, false};

  std::size_t count = 0;
  char32_t codePoint = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0) {
    count = 2, codePoint = lead & 0x1F, smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    count = 3, codePoint = lead & 0x0F, smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    count = 4, codePoint = lead & 0x07, smallest = 0x10000;
  } else {
    return malformed;
  }
  if (bytes.size() < count) return malformed;
  for (std::size_t i = 1; i < count; ++i) {
    const unsigned next = byteAt(bytes, i);
    if ((next & 0xC0) != 0x80) return malformed;
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest || codePoint > 0x10FFFF || surrogate) return malformed;
  return {codePoint, count, true};
}

bool isValidUtf8(std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const Utf8Character character = decodeUtf8(bytes);
    if (!character.wellFormed) return false;
    bytes.remove_prefix(character.byteCount);
  }
  return true;
}

std::string withoutControlCharacters(std::string text) {
  std::erase_if(text, [](unsigned char byte) { return isControl(byte); });
  return text;
}

std::size_t utf16Length(std::string_view text) noexcept {
  std::size_t units = 0;
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    units += utf16Units(character);
    text.remove_prefix(character.byteCount);
  }
  return units;
}

std::size_t utf8PrefixBytes(std::string_view text, std::size_t units) noexcept {
  std::size_t bytes = 0;
  while (bytes < text.size()) {
    const Utf8Character character = decodeUtf8(text.substr(bytes));
    const std::size_t needed = utf16Units(character);
    if (needed > units) break;
    units -= needed;
    bytes += character.byteCount;
  }
  return bytes;
}

void appendUtf8(std::string& text, char32_t codePoint) {
  if (codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
    codePoint = kReplacement;
  }
  const auto continuation = [codePoint](int shift) {
    return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
  };
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    text += {static_cast<char>(0xC0 | (codePoint >> 6)), continuation(0)};
  } else if (codePoint < 0x10000) {
    text += {static_cast<char>(0xE0 | (codePoint >> 12)), continuation(6), continuation(0)};
  } else {
    text += {static_cast<char>(0xF0 | (codePoint >> 18)), continuation(12), continuation(6),
             continuation(0)};
  }
}

}  // namespace orbiq
