#include "orbiq/services/platform/text/Utf8.h"

#include <bit>
#include <cstdint>

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

  // The lead byte begins with as many ones as the character has bytes.
  const auto count = static_cast<std::size_t>(std::countl_one(static_cast<std::uint8_t>(lead)));
  if (count < 2 || count > 4 || bytes.size() < count) return malformed;
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  char32_t codePoint = lead & (0x7FU >> count);
  for (std::size_t i = 1; i < count; ++i) {
    const unsigned next = byteAt(bytes, i);
    if ((next & 0xC0) != 0x80) return malformed;
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < kSmallest[count] || codePoint > 0x10FFFF || surrogate) return malformed;
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
  // `more` bytes follow the lead byte, which begins with `more` + 1 ones, or with none for ASCII.
  const int more = (codePoint >= 0x80) + (codePoint >= 0x800) + (codePoint >= 0x10000);
  const unsigned ones = more == 0 ? 0 : 0x7F80U >> more;
  text += static_cast<char>(ones | codePoint >> (6 * more));
  for (int shift = 6 * (more - 1); shift >= 0; shift -= 6) {
    text += static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
  }
}

}  // namespace orbiq
