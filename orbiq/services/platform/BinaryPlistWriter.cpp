#include "orbiq/services/platform/BinaryPlistWriter.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "orbiq/services/platform/Utf8.h"

namespace orbiq {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr PlistRef kNone = UINT32_MAX;
constexpr std::size_t kBlockSize = 4096;

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

/// Stores the low bytes of `number`, most significant first, and returns the place behind them.
template <std::size_t kSize>
char* store(char* place, std::uint64_t number) {
  for (std::size_t i = 0; i < kSize; ++i) {
    place[i] = static_cast<char>(number >> (8 * (kSize - 1 - i)));
  }
  return place + kSize;
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

}  // namespace

void BinaryPlistWriter::begin(RefSize refSize) {
  _refSize = refSize;
  _size = 0;
  _offsets.clear();
  _booleans.fill(kNone);
  _smallIntegers.fill(kNone);
  std::copy_n(kMagic.data(), kMagic.size(), grow(kMagic.size()));
}

void BinaryPlistWriter::rewind(const Mark& mark) {
  _size = mark.size;
  _offsets.resize(mark.objectCount);
}

bool BinaryPlistWriter::fits(std::size_t objectCount, RefSize refSize) {
  // Readers want the count itself to fit, not only the highest number.
  return objectCount <= (refSize == RefSize::kTwo ? UINT16_MAX : UINT32_MAX);
}

void BinaryPlistWriter::enlarge(std::size_t count) {
  const auto capacity = std::max<std::size_t>({_size + count, 2 * _capacity, 4096});
  auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
  std::copy_n(_bytes.get(), _size, bytes.get());
  _bytes = std::move(bytes);
  _capacity = capacity;
}

PlistRef BinaryPlistWriter::beginObject() {
  std::uint32_t offset = 0;
  store<sizeof offset>(reinterpret_cast<char*>(&offset), _size);
  _offsets.push_back(offset);
  return static_cast<PlistRef>(_offsets.size() - 1);
}

void BinaryPlistWriter::putHead(unsigned kind, std::size_t count) {
  *grow(1) = marker(kind, std::min<std::size_t>(count, 0xF));
  if (count >= 0xF) putInteger(count);
}

/// One, two and four bytes are read as unsigned, eight as signed.
void BinaryPlistWriter::putInteger(std::uint64_t number) {
  if (number <= UINT8_MAX) {
    char* const place = grow(2);
    place[0] = marker(kInteger, 0);
    store<1>(place + 1, number);
  } else if (number <= UINT16_MAX) {
    char* const place = grow(3);
    place[0] = marker(kInteger, 1);
    store<2>(place + 1, number);
  } else if (number <= UINT32_MAX) {
    char* const place = grow(5);
    place[0] = marker(kInteger, 2);
    store<4>(place + 1, number);
  } else {
    char* const place = grow(9);
    place[0] = marker(kInteger, 3);
    store<8>(place + 1, number);
  }
}

PlistRef BinaryPlistWriter::addBoolean(bool value) {
  PlistRef& known = _booleans[value ? 1 : 0];
  if (known == kNone) {
    known = beginObject();
    *grow(1) = marker(0, value ? 9 : 8);
  }
  return known;
}

PlistRef BinaryPlistWriter::addInteger(std::int64_t number) {
  // As an unsigned number, a negative one is large enough to take eight bytes.
  const auto bits = static_cast<std::uint64_t>(number);
  PlistRef* const known =
      bits < _smallIntegers.size() ? &_smallIntegers[static_cast<std::size_t>(bits)] : nullptr;
  if (known != nullptr && *known != kNone) return *known;
  const PlistRef ref = beginObject();
  putInteger(bits);
  if (known != nullptr) *known = ref;
  return ref;
}

PlistRef BinaryPlistWriter::addReal(double number) {
  const PlistRef ref = beginObject();
  char* const place = grow(9);
  place[0] = marker(kReal, 3);
  store<8>(place + 1, std::bit_cast<std::uint64_t>(number));
  return ref;
}

PlistRef BinaryPlistWriter::addText(std::string_view text) {
  const PlistRef ref = beginObject();
  if (isAscii(text)) {
    putHead(kAscii, text.size());
    std::copy_n(text.data(), text.size(), grow(text.size()));
  } else {
    putUtf16(text);
  }
  return ref;
}

void BinaryPlistWriter::putUtf16(std::string_view text) {
  const std::size_t units = utf16Length(text);
  putHead(kUtf16, units);
  char* place = grow(2 * units);
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    text.remove_prefix(character.byteCount);
    if (character.codePoint <= UINT16_MAX) {
      place = store<2>(place, character.codePoint);
    } else {
      const char32_t rest = character.codePoint - 0x10000;
      place = store<2>(place, 0xD800 | rest >> 10);
      place = store<2>(place, 0xDC00 | (rest & 0x3FF));
    }
  }
}

PlistRef BinaryPlistWriter::addUid(std::uint32_t uid) {
  const PlistRef ref = beginObject();
  if (uid <= UINT8_MAX) {
    char* const place = grow(2);
    place[0] = marker(kUid, 0);
    store<1>(place + 1, uid);
  } else if (uid <= UINT16_MAX) {
    char* const place = grow(3);
    place[0] = marker(kUid, 1);
    store<2>(place + 1, uid);
  } else {
    char* const place = grow(5);
    place[0] = marker(kUid, 3);
    store<4>(place + 1, uid);
  }
  return ref;
}

void BinaryPlistWriter::putRefs(std::span<const PlistRef> refs) {
  char* place = grow(refs.size() * static_cast<std::size_t>(_refSize));
  if (_refSize == RefSize::kTwo) {
    for (const PlistRef ref : refs) place = store<2>(place, ref);
  } else {
    for (const PlistRef ref : refs) place = store<4>(place, ref);
  }
}

PlistRef BinaryPlistWriter::addArray(std::span<const PlistRef> elements) {
  const PlistRef ref = beginObject();
  putHead(kArray, elements.size());
  putRefs(elements);
  return ref;
}

PlistRef BinaryPlistWriter::addDictionary(std::span<const PlistRef> keys,
                                          std::span<const PlistRef> values) {
  const PlistRef ref = beginObject();
  putHead(kDictionary, keys.size());
  putRefs(keys);
  putRefs(values);
  return ref;
}

void BinaryPlistWriter::putOffsets(std::size_t offsetSize) {
  char* place = grow(offsetSize * _offsets.size());
  if (offsetSize == sizeof(std::uint32_t)) {
    std::memcpy(place, _offsets.data(), sizeof(std::uint32_t) * _offsets.size());
    return;
  }
  for (const std::uint32_t& offset : _offsets) {
    std::memcpy(place, reinterpret_cast<const char*>(&offset) + 2, 2);
    place += 2;
  }
}

std::string_view BinaryPlistWriter::finish(PlistRef top) {
  constexpr std::size_t kTrailerSize = 32;
  if (_size > UINT32_MAX) throw std::length_error("the list is too long");
  const std::size_t offsetSize = _size <= UINT16_MAX - kBlockSize ? 2 : 4;
  const std::size_t whole = _size + offsetSize * _offsets.size() + kTrailerSize;
  const std::size_t padding = (kBlockSize - whole % kBlockSize) % kBlockSize;
  std::memset(grow(padding), 0, padding);
  const std::size_t table = _size;
  putOffsets(offsetSize);
  char* place = grow(kTrailerSize);
  place = store<8>(place, offsetSize << 8 | static_cast<std::uint64_t>(_refSize));
  place = store<8>(place, _offsets.size());
  place = store<8>(place, top);
  store<8>(place, table);
  return {_bytes.get(), _size};
}

}  // namespace orbiq
