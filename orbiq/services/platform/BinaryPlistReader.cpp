#include "orbiq/services/platform/BinaryPlistReader.h"

#include <bit>
#include <cmath>
#include <limits>
#include <type_traits>

#include "orbiq/services/platform/Utf8.h"

namespace orbiq {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

/// The whole part of `real`, moved into the range of `Integer`.
template <class Integer>
Integer saturated(double real) {
  using Limits = std::numeric_limits<Integer>;
  // The power of two behind the highest value: unlike that, it is a double.
  const double beyond = std::ldexp(1.0, Limits::digits);
  if (std::isnan(real)) return 0;
  if (real >= beyond) return Limits::max();
  if (real <= static_cast<double>(Limits::min())) return Limits::min();
  return static_cast<Integer>(real);
}

template <class Integer>
struct ToInteger {
  Integer operator()(std::int64_t number) const { return static_cast<Integer>(number); }
  Integer operator()(std::uint64_t number) const { return static_cast<Integer>(number); }
  Integer operator()(double number) const { return saturated<Integer>(number); }
};

}  // namespace

std::int64_t PlistNumber::toInteger() const {
  return std::visit(ToInteger<std::int64_t>(), _number);
}

std::uint64_t PlistNumber::toUnsigned() const {
  return std::visit(ToInteger<std::uint64_t>(), _number);
}

double PlistNumber::toReal() const {
  return std::visit([](auto number) { return static_cast<double>(number); }, _number);
}

bool PlistNumber::toBoolean() const {
  const double real = toReal();
  return real != 0 && !std::isnan(real);
}

std::optional<BinaryPlistReader> BinaryPlistReader::open(std::string_view bytes) {
  if (!bytes.starts_with(kMagic) || bytes.size() < kMagic.size() + kTrailerSize) return {};
  BinaryPlistReader reader(bytes);
  const std::size_t trailer = bytes.size() - kTrailerSize;
  reader._offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
  reader._refSize = static_cast<unsigned char>(bytes[trailer + 7]);
  reader._objectCount = reader.bigEndian(trailer + 8, 8);
  reader._top = reader.bigEndian(trailer + 16, 8);
  const std::uint64_t table = reader.bigEndian(trailer + 24, 8);
  const auto isSize = [](std::size_t size) { return size >= 1 && size <= 8; };
  if (!isSize(reader._offsetSize) || !isSize(reader._refSize)) return {};
  if (table <= kMagic.size() || table > trailer) return {};
  // The table fills the room up to the trailer: a file that was cut short does not pass for whole.
  const std::uint64_t room = trailer - table;
  if (reader._objectCount != room / reader._offsetSize || room % reader._offsetSize != 0) return {};
  reader._end = static_cast<std::size_t>(table);
  return reader;
}

std::uint64_t BinaryPlistReader::bigEndian(std::size_t start, std::size_t size) const {
  std::uint64_t number = 0;
  for (std::size_t i = start; i < start + size; ++i) {
    number = number << 8 | static_cast<unsigned char>(_bytes[i]);
  }
  return number;
}

PlistObject BinaryPlistReader::object(std::uint64_t number) const {
  using Kind = PlistObject::Kind;
  if (number >= _objectCount) return {};
  const std::uint64_t offset =
      bigEndian(_end + static_cast<std::size_t>(number) * _offsetSize, _offsetSize);
  if (offset < kMagic.size() || offset >= _end) return {};
  const auto start = static_cast<std::size_t>(offset) + 1;
  const unsigned marker = static_cast<unsigned char>(_bytes[start - 1]);
  const unsigned info = marker & 0xF;

  PlistObject object;
  switch (marker >> 4) {
    case 0x0:
      if (info == 8 || info == 9) object = {Kind::kBoolean, 0, start, info & 1};
      break;
    case 0x1:
      if (info <= 4) object = bounded(Kind::kInteger, start, std::uint64_t{1} << info, 1);
      break;
    case 0x2:
      if (info == 2 || info == 3) object = bounded(Kind::kReal, start, std::uint64_t{1} << info, 1);
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
  object.number = number;
  return object;
}

/// An object whose count stands in the marker, or in an integer behind it.
PlistObject BinaryPlistReader::counted(PlistObject::Kind kind, std::size_t start, unsigned info,
                                       std::size_t unit) const {
  if (info < 0xF) return bounded(kind, start, info, unit);
  if (start >= _end) return {};
  const unsigned marker = static_cast<unsigned char>(_bytes[start]);
  if (marker < 0x10 || marker > 0x13) return {};
  const std::size_t size = std::size_t{1} << (marker & 0xF);
  if (size > _end - start - 1) return {};
  return bounded(kind, start + 1 + size, bigEndian(start + 1, size), unit);
}

PlistObject BinaryPlistReader::bounded(PlistObject::Kind kind, std::size_t start,
                                       std::uint64_t count, std::size_t unit) const {
  if (count > (_end - start) / unit) return {};
  return {kind, 0, start, static_cast<std::size_t>(count)};
}

PlistObject BinaryPlistReader::referred(const PlistObject& container, std::size_t index) const {
  return object(bigEndian(container.start + index * _refSize, _refSize));
}

PlistObject BinaryPlistReader::element(const PlistObject& array, std::size_t index) const {
  return referred(array, index);
}

PlistObject BinaryPlistReader::key(const PlistObject& dictionary, std::size_t index) const {
  return referred(dictionary, index);
}

PlistObject BinaryPlistReader::value(const PlistObject& dictionary, std::size_t index) const {
  return referred(dictionary, dictionary.count + index);
}

std::optional<PlistNumber> BinaryPlistReader::number(const PlistObject& object) const {
  switch (object.kind) {
    case PlistObject::Kind::kBoolean:
      return PlistNumber(static_cast<std::int64_t>(object.count));
    case PlistObject::Kind::kReal: {
      const std::uint64_t bits = bigEndian(object.start, object.count);
      if (object.count == 8) return PlistNumber(std::bit_cast<double>(bits));
      return PlistNumber(double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))});
    }
    case PlistObject::Kind::kInteger: {
      if (object.count < 16) {
        // Eight bytes are signed; in fewer the sign bit is never set.
        return PlistNumber(static_cast<std::int64_t>(bigEndian(object.start, object.count)));
      }
      const std::uint64_t high = bigEndian(object.start, 8);
      const std::uint64_t low = bigEndian(object.start + 8, 8);
      if (high == 0) return PlistNumber(low);
      if (high == UINT64_MAX && low > INT64_MAX) return PlistNumber(static_cast<std::int64_t>(low));
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

bool BinaryPlistReader::isText(const PlistObject& object, std::string_view ascii) const {
  if (!object.isText() || object.count != ascii.size()) return false;
  if (object.kind == PlistObject::Kind::kText) {
    return _bytes.substr(object.start, object.count) == ascii;
  }
  return text(object) == ascii;
}

}  // namespace orbiq
