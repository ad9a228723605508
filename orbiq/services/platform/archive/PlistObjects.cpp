#include "orbiq/services/platform/archive/PlistObjects.h"

#include <algorithm>
#include <bit>

#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

enum Marker : unsigned {
  kInteger = 0x1,
  kAscii = 0x5,
  kUtf16 = 0x6,
  kUid = 0x8,
  kArray = 0xA,
  kDictionary = 0xD,
};
constexpr char kReal = 0x23;
/// In the place of a size: it follows as an integer.
constexpr unsigned kSizeFollows = 0xF;

constexpr char marker(unsigned kind, std::size_t info) {
  return static_cast<char>(kind << 4 | info);
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char character) { return static_cast<unsigned char>(character) < 0x80; });
}

}  // namespace

void PlistObjects::addNumber(std::uint64_t number, std::size_t size) {
  char bytes[sizeof number];
  _bytes.append(bytes, storeBigEndian(bytes, number, size));
}

void PlistObjects::addBoolean(bool value) { _bytes += value ? '\x09' : '\x08'; }

/// One, two and four bytes are read as unsigned, eight as signed: a negative number takes eight.
void PlistObjects::addInteger(std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  const unsigned logSize = bits <= UINT8_MAX    ? 0
                           : bits <= UINT16_MAX ? 1
                           : bits <= UINT32_MAX ? 2
                                                : 3;
  _bytes += marker(kInteger, logSize);
  addNumber(bits, std::size_t{1} << logSize);
}

void PlistObjects::addReal(double number) {
  _bytes += kReal;
  addNumber(std::bit_cast<std::uint64_t>(number), sizeof number);
}

void PlistObjects::addText(std::string_view text) {
  if (isAscii(text)) {
    addHead(kAscii, text.size());
    _bytes += text;
    return;
  }
  addHead(kUtf16, utf16Length(text));
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    text.remove_prefix(character.byteCount);
    if (character.codePoint <= UINT16_MAX) {
      addNumber(character.codePoint, 2);
    } else {
      const char32_t rest = character.codePoint - 0x10000;
      addNumber((0xD800 | rest >> 10) << 16 | 0xDC00 | (rest & 0x3FF), 4);
    }
  }
}

/// As wide as a reference, whatever the number.
void PlistObjects::addUid(std::uint32_t uid) {
  _bytes += marker(kUid, _refSize - 1);
  addNumber(uid, _refSize);
}

void PlistObjects::addArray(std::span<const PlistRef> elements) {
  addHead(kArray, elements.size());
  addRefs(elements);
}

void PlistObjects::addDictionary(std::span<const PlistRef> keys, std::span<const PlistRef> values) {
  addHead(kDictionary, keys.size());
  addRefs(keys);
  addRefs(values);
}

/// The count can change where it stands.
void PlistObjects::addArrayHead(std::size_t count) {
  _bytes += marker(kArray, kSizeFollows);
  _bytes += marker(kInteger, 2);
  addNumber(count, sizeof(std::uint32_t));
}

void PlistObjects::addHead(unsigned kind, std::size_t count) {
  _bytes += marker(kind, std::min<std::size_t>(count, kSizeFollows));
  if (count >= kSizeFollows) addInteger(static_cast<std::int64_t>(count));
}

void PlistObjects::addRefs(std::span<const PlistRef> refs) {
  const std::size_t at = _bytes.size();
  _bytes.resize(at + refs.size() * _refSize);
  char* place = _bytes.data() + at;
  for (const PlistRef ref : refs) place = storeBigEndian(place, ref, _refSize);
}

}  // namespace orbiq
