#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/BinaryPlistReader.h"

namespace orbiq {

/// The platform's own classes. The names begin with the mutable form where there is one.
extern const ArchivedClass kArchivedArray, kArchivedDictionary, kArchivedDate;

/// Finds its way through a keyed archive: from keys to values, from UIDs to entries, from entries
/// to the names of their classes. What is not there is an object of kind none.
class KeyedArchiveReader {
 public:
  /// `archive` is the dictionary that holds the object table. `budget` is what reading may cost in
  /// time and memory: many references, or overlapping objects, can make few bytes look like many.
  KeyedArchiveReader(const BinaryPlistReader& plist, const PlistObject& archive,
                     std::size_t budget);

  const BinaryPlistReader& plist() const { return _plist; }
  const PlistObject& archive() const { return _archive; }
  /// The object table.
  const PlistObject& entries() const { return _entries; }

  /// The object that a dictionary holds under a key, as it stands there.
  PlistObject valueOf(const PlistObject& dictionary, std::string_view key);
  /// The entry of the object table that a UID leads to; none for null.
  PlistObject entryAt(std::uint64_t uid) const;
  PlistObject entryOf(const PlistObject& uidValue) const;
  /// The text that is the name of an entry's class.
  PlistObject classNameOf(const PlistObject& entry);
  bool isOfClass(const PlistObject& entry, std::span<const std::string_view> names);
  /// The text that an entry is, plain or in a string object.
  PlistObject charactersOf(const PlistObject& entry);

  /// What a date holds that stands, or is referred to, under a key: seconds since the reference
  /// date. It may be archived, or one of the property list's own. No value if it is no date.
  std::optional<double> secondsOf(const PlistObject& value);

  /// Takes what an operation costs from the budget; false once that is used up, and for ever.
  bool spend(std::size_t cost);

 private:
  BinaryPlistReader _plist;
  std::size_t _budget;
  PlistObject _archive;
  PlistObject _entries;
};

}  // namespace orbiq
