#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orbiq {

/// True if the bytes are well-formed UTF-8 (no overlong form, no surrogate, nothing above
/// U+10FFFF).
bool isValidUtf8(std::string_view bytes) noexcept;

/// ASCII only, so that the host's locale has no say in it.
constexpr char asciiLowerCase(char character) noexcept {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

/// ASCII only, as well.
constexpr bool isLowerCaseOrDigit(char character) noexcept {
  return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9');
}

/// True for ASCII's control characters and DEL, by their code.
constexpr bool isControl(char32_t code) noexcept { return code < 0x20 || code == 0x7F; }

/// The text without them: a header must not be broken in two by a name.
std::string withoutControlCharacters(std::string text);

/// Appends the bytes, those that are not plain as "%" and two hexadecimal digits.
template <class IsPlain>
void appendEscaped(std::string& text, std::string_view bytes, const IsPlain& isPlain) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char character : bytes) {
    if (isPlain(character)) {
      text += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      text += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
}

/// Length in UTF-16 code units. Malformed bytes count one each.
std::size_t utf16Length(std::string_view text) noexcept;

/// Number of bytes of the longest prefix that has at most `units` UTF-16 code units and cuts no
/// character in two.
std::size_t utf8PrefixBytes(std::string_view text, std::size_t units) noexcept;

/// One decoded character.
struct Utf8Character {
  char32_t codePoint = 0;     ///< U+FFFD for a malformed byte
  std::size_t byteCount = 0;  ///< bytes consumed, 1 for a malformed one
  bool wellFormed = false;
};

/// Decodes the character at the start of `bytes`, which must not be empty.
Utf8Character decodeUtf8(std::string_view bytes) noexcept;

/// Appends a code point to `text` as UTF-8; a surrogate, or a number above U+10FFFF, becomes
/// U+FFFD.
void appendUtf8(std::string& text, char32_t codePoint);

}  // namespace orbiq
