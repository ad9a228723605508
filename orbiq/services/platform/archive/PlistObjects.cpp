#include "orbiq/services/platform/archive/PlistObjects.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

enum Kind : unsigned {
  kInteger = 0x1,
  kReal = 0x2,
  kAscii = 0x5,
  kUtf16 = 0x6,
  kUid = 0x8,
  kArray = 0xA,
  kDictionary = 0xD,
};

constexpr char marker(unsigned kind, std::size_t info) {
  return static_cast<char>(kind << 4 | info);
}

bool isAscii(std::string_view text) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080U;
  std::uint64_t seen = 0;
  for (; text.size() >= sizeof seen; text.remove_prefix(sizeof seen)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), sizeof word);
    seen |= word;
  }
  for (const char character : text) seen |= static_cast<unsigned char>(character);
  return (seen & kHighBits) == 0;
}

/// More than a few requests take.
constexpr std::size_t kManyObjects = 1024;

}  // namespace

void PlistObjects::begin(PlistRefSize refSize, PlistRef first, bool isMovable) {
  _refSize = refSize;
  _first = first;
  _isMovable = isMovable;
  _runFirst = first;
  _size = 0;
  _offsets.clear();
  _ownRefs.clear();
  _foreignRefs.clear();
  _uidNumbers.clear();
}

void PlistObjects::end() {
  if (_offsets.capacity() > kManyObjects) *this = {};
  begin(_refSize, _first, _isMovable);
}

void PlistObjects::enlarge(std::size_t count) {
  const auto capacity = std::max<std::size_t>({_size + count, 2 * _capacity, 1024});
  auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
  std::copy_n(_bytes.get(), _size, bytes.get());
  _bytes = std::move(bytes);
  _capacity = capacity;
}

PlistRef PlistObjects::beginObject() {
  _offsets.push_back(static_cast<std::uint32_t>(_size));
  return _first + static_cast<PlistRef>(_offsets.size() - 1);
}

void PlistObjects::putHead(unsigned kind, std::size_t count) {
  *grow(1) = marker(kind, std::min<std::size_t>(count, 0xF));
  if (count >= 0xF) putInteger(count);
}

/// One, two and four bytes are read as unsigned, eight as signed.
void PlistObjects::putInteger(std::uint64_t number) {
  if (number <= UINT8_MAX) {
    char* const place = grow(2);
    place[0] = marker(kInteger, 0);
    storeBigEndian<1>(place + 1, number);
  } else if (number <= UINT16_MAX) {
    char* const place = grow(3);
    place[0] = marker(kInteger, 1);
    storeBigEndian<2>(place + 1, number);
  } else if (number <= UINT32_MAX) {
    char* const place = grow(5);
    place[0] = marker(kInteger, 2);
    storeBigEndian<4>(place + 1, number);
  } else {
    char* const place = grow(9);
    place[0] = marker(kInteger, 3);
    storeBigEndian<8>(place + 1, number);
  }
}

PlistRef PlistObjects::addBoolean(bool value) {
  const PlistRef ref = beginObject();
  *grow(1) = marker(0, value ? 9 : 8);
  return ref;
}

PlistRef PlistObjects::addInteger(std::int64_t number) {
  const PlistRef ref = beginObject();
  // As an unsigned number, a negative one is large enough to take eight bytes.
  putInteger(static_cast<std::uint64_t>(number));
  return ref;
}

PlistRef PlistObjects::addReal(double number) {
  const PlistRef ref = beginObject();
  char* const place = grow(9);
  place[0] = marker(kReal, 3);
  storeBigEndian<8>(place + 1, std::bit_cast<std::uint64_t>(number));
  return ref;
}

PlistRef PlistObjects::addText(std::string_view text) {
  const PlistRef ref = beginObject();
  if (isAscii(text)) {
    putHead(kAscii, text.size());
    std::copy_n(text.data(), text.size(), grow(text.size()));
  } else {
    putUtf16(text);
  }
  return ref;
}

void PlistObjects::putUtf16(std::string_view text) {
  const std::size_t units = utf16Length(text);
  putHead(kUtf16, units);
  char* place = grow(2 * units);
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    text.remove_prefix(character.byteCount);
    if (character.codePoint <= UINT16_MAX) {
      place = storeBigEndian<2>(place, character.codePoint);
    } else {
      const char32_t rest = character.codePoint - 0x10000;
      place = storeBigEndian<2>(place, 0xD800 | rest >> 10);
      place = storeBigEndian<2>(place, 0xDC00 | (rest & 0x3FF));
    }
  }
}

/// As wide as a reference, whatever the number: it may change in its place.
PlistRef PlistObjects::addUid(std::uint32_t uid) {
  const PlistRef ref = beginObject();
  const auto width = static_cast<std::size_t>(_refSize);
  *grow(1) = marker(kUid, width - 1);
  _uidNumbers.push_back(static_cast<std::uint32_t>(_size));
  char* const place = grow(width);
  if (_refSize == PlistRefSize::kTwo) {
    storeBigEndian<2>(place, uid);
  } else {
    storeBigEndian<4>(place, uid);
  }
  return ref;
}

void PlistObjects::putRefs(std::span<const PlistRef> refs) {
  const auto width = static_cast<std::uint32_t>(_refSize);
  if (_isMovable) {
    auto at = static_cast<std::uint32_t>(_size);
    for (const PlistRef ref : refs) {
      if (ref >= _first) (ref >= _runFirst ? _ownRefs : _foreignRefs).push_back(at);
      at += width;
    }
  }
  char* place = grow(refs.size() * width);
  if (_refSize == PlistRefSize::kTwo) {
    for (const PlistRef ref : refs) place = storeBigEndian<2>(place, ref);
  } else {
    for (const PlistRef ref : refs) place = storeBigEndian<4>(place, ref);
  }
}

PlistRef PlistObjects::addArray(std::span<const PlistRef> elements) {
  const PlistRef ref = beginObject();
  putHead(kArray, elements.size());
  putRefs(elements);
  return ref;
}

PlistRef PlistObjects::addDictionary(std::span<const PlistRef> keys,
                                     std::span<const PlistRef> values) {
  const PlistRef ref = beginObject();
  putHead(kDictionary, keys.size());
  putRefs(keys);
  putRefs(values);
  return ref;
}

}  // namespace orbiq
