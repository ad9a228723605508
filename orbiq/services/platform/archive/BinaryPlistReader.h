#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orbiq {

inline constexpr std::string_view kPlistMagic = "bplist00";
inline constexpr std::size_t kPlistTrailerSize = 32;

/// A number of a property list. A real becomes a signed integer: truncated, limited to its range, 0
/// for NaN. An integer keeps its low 64 bits.
struct PlistNumber {
  std::uint64_t bits = 0;
  double real = 0;

  std::int64_t toInteger() const { return static_cast<std::int64_t>(bits); }
  std::uint64_t toUnsigned() const { return bits; }
  double toReal() const { return real; }
  bool toBoolean() const { return real < 0 || real > 0; }
};

/// Where the bytes are not what they should be.
struct PlistDamage {
  const char* expected = nullptr;  ///< what should stand there; null if nothing is wrong
  std::size_t offset = 0;
};

/// One object of a binary property list: its kind, and where its contents stand in the bytes. The
/// contents lie within bounds.
struct PlistObject {
  enum class Kind : std::uint8_t {
    kNone,  ///< damaged, missing, or of a kind that keyed archives do not need
    kBoolean,
    kInteger,
    kReal,
    kDate,
    kData,
    kText,   ///< ASCII or UTF-8
    kUtf16,  ///< big-endian
    kUid,
    kArray,
    kDictionary,
  };

  Kind kind = Kind::kNone;
  std::uint64_t number = 0;  ///< the object's own number
  std::size_t start = 0;     ///< of the contents
  std::size_t count = 0;     ///< bytes, UTF-16 code units, elements or pairs; a boolean's value
  PlistDamage damage{};      ///< why the kind is none; not set for an object that nothing refers to

  bool isText() const { return kind == Kind::kText || kind == Kind::kUtf16; }
  bool isContainer() const { return kind == Kind::kArray || kind == Kind::kDictionary; }
};

/// Reads a binary property list where it lies, one object at a time and only when asked; allocates
/// nothing but the texts it returns. The bytes may be anything, and must outlive the reader.
class BinaryPlistReader {
 public:
  /// No value if the bytes have not the frame of a binary property list; `damage`, if given, then
  /// says why.
  static std::optional<BinaryPlistReader> open(std::string_view bytes,
                                               PlistDamage* damage = nullptr);
  /// A reader of bytes whose trailer or offset table cannot be had: only `objectAt` and what takes
  /// its objects is of use. `refSize` is 1 to 8.
  static BinaryPlistReader withoutFrame(std::string_view bytes, std::size_t refSize);

  PlistObject top() const;
  std::uint64_t objectCount() const { return _objectCount; }
  /// The object of that number.
  PlistObject object(std::uint64_t number) const;
  /// The object whose first byte stands there; its number is not known.
  PlistObject objectAt(std::uint64_t offset) const;
  /// Where the object of that number, below the count, starts; not checked.
  std::uint64_t offsetOf(std::uint64_t number) const;
  /// Where the contents of an object end.
  std::size_t endOf(const PlistObject& object) const;
  /// How many objects an array or a dictionary refers to, and each of these, below that number.
  static std::size_t referenceCount(const PlistObject& container);
  PlistObject referred(const PlistObject& container, std::size_t index) const;
  /// An element of an array, below its count.
  PlistObject element(const PlistObject& array, std::size_t index) const {
    return referred(array, index);
  }
  /// A key of a dictionary, below its count, and the value that belongs to it.
  PlistObject key(const PlistObject& dictionary, std::size_t index) const {
    return referred(dictionary, index);
  }
  PlistObject value(const PlistObject& dictionary, std::size_t index) const {
    return referred(dictionary, dictionary.count + index);
  }

  /// No value if the object is no number (or boolean), or one beyond 64 bits.
  std::optional<PlistNumber> number(const PlistObject& object) const;
  std::optional<std::uint64_t> uid(const PlistObject& object) const;
  /// The text as UTF-8, malformed parts as U+FFFD; empty if the object is no text.
  std::string text(const PlistObject& object) const;
  /// Seconds since the reference date, if the object is one of the list's own dates.
  std::optional<double> date(const PlistObject& object) const;
  /// What a data object holds; empty if the object is none.
  std::string_view data(const PlistObject& object) const;
  /// True if the object is that text, which is ASCII.
  bool isText(const PlistObject& object, std::string_view ascii) const;
  /// The memory that `text` takes, at most.
  static std::size_t textBytes(const PlistObject& object) { return 3 * object.count; }

 private:
  explicit BinaryPlistReader(std::string_view bytes) : _bytes(bytes) {}

  PlistDamage readFrame();
  PlistObject counted(PlistObject::Kind kind, std::size_t start, unsigned info,
                      std::size_t unit) const;
  PlistObject bounded(PlistObject::Kind kind, std::size_t start, std::uint64_t count,
                      std::size_t unit) const;
  std::uint64_t bigEndian(std::size_t start, std::size_t size) const;

  std::string_view _bytes;
  std::size_t _end = 0;  ///< of the objects, where the offset table starts
  std::uint64_t _objectCount = 0;
  std::uint64_t _top = 0;
  std::size_t _offsetSize = 0;
  std::size_t _refSize = 0;
};

}  // namespace orbiq
