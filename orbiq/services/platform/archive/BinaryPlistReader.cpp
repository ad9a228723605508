#include "orbiq/services/platform/archive/BinaryPlistReader.h"

#include <bit>
#include <cmath>

#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

PlistNumber ofInteger(std::int64_t number) {
  return {static_cast<std::uint64_t>(number), static_cast<double>(number)};
}

PlistNumber ofReal(double real) {
  // The power of two behind the highest integer: unlike that, it is a double.
  constexpr double kBeyond = 0x1p63;
  std::int64_t whole = 0;
  if (real >= kBeyond) {
    whole = INT64_MAX;
  } else if (real <= -kBeyond) {
    whole = INT64_MIN;
  } else if (!std::isnan(real)) {
    whole = static_cast<std::int64_t>(real);
  }
  return {static_cast<std::uint64_t>(whole), real};
}

}  // namespace

std::optional<BinaryPlistReader> BinaryPlistReader::open(std::string_view bytes,
                                                         PlistDamage* damage) {
  BinaryPlistReader reader(bytes);
  const PlistDamage found = reader.readFrame();
  if (damage != nullptr) *damage = found;
  if (found.expected != nullptr) return {};
  return reader;
}

PlistDamage BinaryPlistReader::readFrame() {
  if (!_bytes.starts_with(kPlistMagic)) return {"the text \"bplist00\"", 0};
  if (_bytes.size() < kPlistMagic.size() + kPlistTrailerSize)
    return {"a trailer of 32 bytes", _bytes.size()};
  const std::size_t trailer = _bytes.size() - kPlistTrailerSize;
  _offsetSize = static_cast<unsigned char>(_bytes[trailer + 6]);
  _refSize = static_cast<unsigned char>(_bytes[trailer + 7]);
  _objectCount = bigEndian(trailer + 8, 8);
  _top = bigEndian(trailer + 16, 8);
  const std::uint64_t table = bigEndian(trailer + 24, 8);
  const auto isSize = [](std::size_t size) { return size >= 1 && size <= 8; };
  if (!isSize(_offsetSize)) return {"1 to 8, the size of an offset", trailer + 6};
  if (!isSize(_refSize)) return {"1 to 8, the size of a reference", trailer + 7};
  if (table <= kPlistMagic.size() || table > trailer) {
    return {"the offset of a table between the objects and the trailer", trailer + 24};
  }
  // The table fills the room up to the trailer: a file that was cut short does not pass for whole.
  const std::uint64_t room = trailer - table;
  if (_objectCount != room / _offsetSize || room % _offsetSize != 0) {
    return {"the number of objects whose offsets fill the room up to the trailer", trailer + 8};
  }
  _end = static_cast<std::size_t>(table);
  return {};
}

BinaryPlistReader BinaryPlistReader::withoutFrame(std::string_view bytes, std::size_t refSize) {
  BinaryPlistReader reader(bytes);
  reader._end = bytes.size();
  reader._refSize = refSize;
  return reader;
}

std::uint64_t BinaryPlistReader::bigEndian(std::size_t start, std::size_t size) const {
  return loadBigEndian(_bytes.data() + start, size);
}

PlistObject BinaryPlistReader::top() const {
  PlistObject top = object(_top);
  if (_top >= _objectCount) top.damage.offset = _bytes.size() - kPlistTrailerSize + 16;
  return top;
}

std::uint64_t BinaryPlistReader::offsetOf(std::uint64_t number) const {
  return bigEndian(_end + static_cast<std::size_t>(number) * _offsetSize, _offsetSize);
}

PlistObject BinaryPlistReader::object(std::uint64_t number) const {
  PlistObject object;
  if (number < _objectCount) {
    const std::uint64_t offset = offsetOf(number);
    if (offset >= kPlistMagic.size() && offset < _end) {
      object = objectAt(offset);
    } else {
      object.damage = {"an offset among the objects",
                       _end + static_cast<std::size_t>(number) * _offsetSize};
    }
  } else {
    object.damage.expected = "the number of an object";
  }
  object.number = number;
  return object;
}

PlistObject BinaryPlistReader::objectAt(std::uint64_t offset) const {
  using Kind = PlistObject::Kind;
  const auto damaged = [&](const char* expected) {
    return PlistObject{.damage = {expected, static_cast<std::size_t>(offset)}};
  };
  if (offset >= _end) return damaged("an object");
  const auto start = static_cast<std::size_t>(offset) + 1;
  const unsigned marker = static_cast<unsigned char>(_bytes[start - 1]);
  const unsigned info = marker & 0xF;

  PlistObject object;
  switch (marker >> 4) {
    case 0x0:
      if (info == 8 || info == 9) object = {Kind::kBoolean, 0, start, info & 1, {}};
      break;
    case 0x1:
      if (info <= 4) object = bounded(Kind::kInteger, start, std::uint64_t{1} << info, 1);
      break;
    case 0x2:
      if (info == 2 || info == 3) object = bounded(Kind::kReal, start, std::uint64_t{1} << info, 1);
      break;
    case 0x3:
      if (info == 3) object = bounded(Kind::kDate, start, 8, 1);
      break;
    case 0x4:
      object = counted(Kind::kData, start, info, 1);
      break;
    case 0x5:
    case 0x7:
      object = counted(Kind::kText, start, info, 1);
      break;
    case 0x6:
      object = counted(Kind::kUtf16, start, info, 2);
      break;
    case 0x8:
      if (info < 8) object = bounded(Kind::kUid, start, info + 1, 1);
      break;
    case 0xA:
      object = counted(Kind::kArray, start, info, _refSize);
      break;
    case 0xD:
      object = counted(Kind::kDictionary, start, info, 2 * _refSize);
      break;
    default:
      break;
  }
  if (object.kind != Kind::kNone || object.damage.expected != nullptr) return object;
  return damaged("a kind of object that keyed archives have");
}

/// An object whose count stands in the marker, or in an integer behind it.
PlistObject BinaryPlistReader::counted(PlistObject::Kind kind, std::size_t start, unsigned info,
                                       std::size_t unit) const {
  if (info < 0xF) return bounded(kind, start, info, unit);
  const PlistObject uncounted{.damage = {"an integer that counts what follows", start}};
  if (start >= _end) return uncounted;
  const unsigned marker = static_cast<unsigned char>(_bytes[start]);
  if (marker < 0x10 || marker > 0x13) return uncounted;
  const std::size_t size = std::size_t{1} << (marker & 0xF);
  if (size > _end - start - 1) return uncounted;
  return bounded(kind, start + 1 + size, bigEndian(start + 1, size), unit);
}

PlistObject BinaryPlistReader::bounded(PlistObject::Kind kind, std::size_t start,
                                       std::uint64_t count, std::size_t unit) const {
  if (count > (_end - start) / unit) return {.damage = {"contents that fit in the file", start}};
  return {kind, 0, start, static_cast<std::size_t>(count), {}};
}

std::size_t BinaryPlistReader::endOf(const PlistObject& object) const {
  switch (object.kind) {
    case PlistObject::Kind::kNone:
    case PlistObject::Kind::kBoolean:
      return object.start;
    case PlistObject::Kind::kUtf16:
      return object.start + 2 * object.count;
    case PlistObject::Kind::kArray:
    case PlistObject::Kind::kDictionary:
      return object.start + referenceCount(object) * _refSize;
    default:
      return object.start + object.count;
  }
}

std::size_t BinaryPlistReader::referenceCount(const PlistObject& container) {
  if (!container.isContainer()) return 0;
  return container.kind == PlistObject::Kind::kArray ? container.count : 2 * container.count;
}

PlistObject BinaryPlistReader::referred(const PlistObject& container, std::size_t index) const {
  const std::size_t place = container.start + index * _refSize;
  const std::uint64_t number = bigEndian(place, _refSize);
  PlistObject found = object(number);
  if (number >= _objectCount) found.damage.offset = place;
  return found;
}

std::optional<PlistNumber> BinaryPlistReader::number(const PlistObject& object) const {
  switch (object.kind) {
    case PlistObject::Kind::kBoolean:
      return ofInteger(static_cast<std::int64_t>(object.count));
    case PlistObject::Kind::kReal: {
      const std::uint64_t bits = bigEndian(object.start, object.count);
      if (object.count == 8) return ofReal(std::bit_cast<double>(bits));
      return ofReal(double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))});
    }
    case PlistObject::Kind::kInteger: {
      if (object.count < 16) {
        // Eight bytes are signed; in fewer the sign bit is never set.
        return ofInteger(static_cast<std::int64_t>(bigEndian(object.start, object.count)));
      }
      const std::uint64_t high = bigEndian(object.start, 8);
      const std::uint64_t low = bigEndian(object.start + 8, 8);
      if (high == 0) return PlistNumber{low, static_cast<double>(low)};
      if (high == UINT64_MAX && low > INT64_MAX) return ofInteger(static_cast<std::int64_t>(low));
      return {};
    }
    default:
      return {};
  }
}

std::optional<std::uint64_t> BinaryPlistReader::uid(const PlistObject& object) const {
  if (object.kind != PlistObject::Kind::kUid) return {};
  return bigEndian(object.start, object.count);
}

std::string BinaryPlistReader::text(const PlistObject& object) const {
  std::string text;
  if (object.kind == PlistObject::Kind::kText) {
    std::string_view rest = _bytes.substr(object.start, object.count);
    if (isValidUtf8(rest)) return std::string(rest);
    while (!rest.empty()) {
      const Utf8Character character = decodeUtf8(rest);
      appendUtf8(text, character.codePoint);
      rest.remove_prefix(character.byteCount);
    }
  } else if (object.kind == PlistObject::Kind::kUtf16) {
    const auto unit = [&](std::size_t index) {
      return static_cast<char32_t>(bigEndian(object.start + 2 * index, 2));
    };
    for (std::size_t i = 0; i < object.count; ++i) {
      char32_t character = unit(i);
      const bool paired =
          character >> 10 == 0x36 && i + 1 < object.count && unit(i + 1) >> 10 == 0x37;
      if (paired) character = 0x10000 + ((character & 0x3FF) << 10 | (unit(++i) & 0x3FF));
      appendUtf8(text, character);
    }
  }
  return text;
}

std::optional<double> BinaryPlistReader::date(const PlistObject& object) const {
  if (object.kind != PlistObject::Kind::kDate) return {};
  return std::bit_cast<double>(bigEndian(object.start, object.count));
}

std::string_view BinaryPlistReader::data(const PlistObject& object) const {
  if (object.kind != PlistObject::Kind::kData) return {};
  return _bytes.substr(object.start, object.count);
}

bool BinaryPlistReader::isText(const PlistObject& object, std::string_view ascii) const {
  if (!object.isText() || object.count != ascii.size()) return false;
  if (object.kind == PlistObject::Kind::kText) {
    return _bytes.substr(object.start, object.count) == ascii;
  }
  return text(object) == ascii;
}

}  // namespace orbiq
