#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/KeyedArchiveReader.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Reads a keyed archive. The bytes may come from anywhere: every length and index is checked
/// before it is used, and nothing is allocated beyond what the bytes themselves can hold.
class KeyedUnarchiver {
 public:
  /// The elements of the archive's root array, in order. No value if the bytes are no keyed
  /// archive, the root is no array, or an element is of none of the `accepted` classes.
  static std::optional<std::vector<std::shared_ptr<Archivable>>> unarchiveArray(
      std::string_view bytes, std::span<const ArchivedClass* const> accepted);

  /// For `ArchivedClass::decode`: each reads one field of the object being decoded. A missing key
  /// or a value of another kind reads as null, 0 or false; integers, reals and booleans convert
  /// into each other.
  /// An object of exactly that class, else null. One stored object comes back as one object. No
  /// class may lead to itself: the stack is as deep as the classes nest.
  std::shared_ptr<Archivable> decodeObject(std::string_view key, const ArchivedClass& expected);
  /// The same for a class with its entry in `kArchivedClass`.
  template <class Class>
  std::shared_ptr<Class> decodeObject(std::string_view key) {
    return std::static_pointer_cast<Class>(decodeObject(key, Class::kArchivedClass));
  }
  /// Stored texts of the same bytes may come back as one text.
  String decodeString(std::string_view key);
  std::optional<Date> decodeDate(std::string_view key);
  /// Null if the stored dictionary has a key that is no text, or not as many keys as values; an
  /// entry whose value is no text is left out, and of equal keys the first counts.
  SharedParameters decodeParameters(std::string_view key);
  std::int64_t decodeInteger(std::string_view key);
  std::uint64_t decodeUnsigned(std::string_view key);
  bool decodeBoolean(std::string_view key);

 private:
  using Elements = std::vector<std::shared_ptr<Archivable>>;

  /// An object that was met; null while it is being decoded.
  struct Decoded {
    const ArchivedClass* archivedClass;
    std::shared_ptr<Archivable> object;
  };

  explicit KeyedUnarchiver(const BinaryPlistReader& reader, std::size_t size);

  std::optional<Elements> decodeRoot(std::span<const ArchivedClass* const> accepted);
  /// The object of that class at a UID; null if it is of another class, or still being decoded.
  std::shared_ptr<Archivable> decodeObjectAt(std::uint64_t uid, const ArchivedClass& expected);
  String textOf(const PlistObject& object);
  SharedParameters parametersOf(const PlistObject& dictionary);

  const BinaryPlistReader& plist() const { return _archive.plist(); }
  /// 0 if there is no number under the key.
  PlistNumber numberOf(std::string_view key);

  KeyedArchiveReader _archive;
  PlistObject _current;  ///< the dictionary of the object being decoded
  // By UID, the texts by the number of the object that holds the characters.
  std::unordered_map<std::uint64_t, Decoded> _objects;
  std::unordered_map<std::uint64_t, SharedParameters> _parameters;
  std::unordered_map<std::uint64_t, String> _texts;
};

/// `ArchivedClass::decode` of a class with a constructor for it.
template <class Class>
std::shared_ptr<Archivable> decodeAs(KeyedUnarchiver& coder) {
  return std::make_shared<Class>(coder);
}

}  // namespace orbiq
