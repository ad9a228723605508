#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/ArchiveLayout.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Keeps an array of objects as a keyed archive in the binary property-list container, and takes
/// note of what comes, goes and changes: each costs the same however long the array is, as the rest
/// stays where it is (see `ArchiveLayout`). Where there is no room for more, all is encoded anew.
///
/// One object that is referred to twice is stored once: an entry of the object table that counts
/// its users. The archive shares what it holds, so that an address stands for one object. Not
/// thread-safe.
class KeyedArchiver {
 public:
  using Element = std::shared_ptr<const Archivable>;

  /// Starts a new archive. Throws `std::length_error` beyond 4 GiB.
  void encode(const std::vector<Element>& elements);
  /// Whether there is an archive of all that it was told since. If not, all other operations do
  /// nothing, and it wants `encode`.
  bool isWhole() const { return _isWhole && !_holdsMutableText; }

  // What fails, for want of room or memory, leaves an archive that is not whole.
  void append(const Element& element);
  void remove(std::size_t index);
  /// The record at that address, an element or what one refers to, writes other fields now.
  void change(const void* record);

  /// The archive's bytes.
  const std::string& bytes() const { return _layout->bytes(); }
  /// Which of them have changed since `pagesTaken`.
  const ChangedPages& changedPages() const { return _layout->changedPages(); }
  void pagesTaken() { _layout->pagesTaken(); }

  /// Gives back the memory, and all that it holds.
  void forget();

  // For `Archivable::encodeWithCoder`: each writes one field of the object being encoded. Keys must
  // be literals. A parameter whose text is null is left out.
  void encodeObject(const Element& object, std::string_view key);
  void encodeString(const String& text, std::string_view key);
  void encodeDate(const std::optional<Date>& date, std::string_view key);
  void encodeParameters(const SharedParameters& parameters, std::string_view key);
  void encodeInteger(std::int64_t number, std::string_view key);
  void encodeBoolean(bool value, std::string_view key);

 private:
  static constexpr std::uint32_t kNone = UINT32_MAX;
  /// Of the object table, behind those of the classes.
  struct Entry {
    std::shared_ptr<const void> object;  ///< null for what nothing else can refer to
    std::uint32_t users = 0;
    std::uint32_t next = kNone;  ///< in the list of those whose addresses hash alike
  };

  bool tryToEncode(const std::vector<Element>& elements);
  template <class Operation>
  void edit(const Operation& operation);

  std::uint32_t& listOf(const void* address);
  std::uint32_t find(const void* address);
  std::uint32_t add(std::shared_ptr<const void> object);
  void release(std::uint32_t entry);
  void releaseRefs(PlistRef object);

  // Each returns the number of the UID that leads there, and counts a user.
  std::optional<PlistRef> use(const void* address);
  PlistRef objectUid(const Element& object);
  PlistRef textUid(const String& text);
  PlistRef parametersUid(const SharedParameters& parameters);

  void assembleFields(const Archivable& object);
  void addField(std::string_view key, PlistRef value);
  PlistRef classUid(const ArchivedClass& archivedClass);
  PlistRef place();
  PlistRef placeArray(std::span<const PlistRef> elements);
  PlistRef placeDictionary(std::span<const PlistRef> keys, std::span<const PlistRef> values);

  ArchiveVocabulary _vocabulary;
  ArchiveLayout::Measure _measure{};
  std::optional<ArchiveLayout> _layout;
  bool _isWhole = false;
  bool _lacksNames = false;        ///< the vocabulary has grown
  bool _holdsMutableText = false;  ///< which changes without a word
  std::vector<Entry> _entries;
  std::vector<std::uint32_t> _lists;  ///< the first entry of each
  // What is being put together.
  PlistObjects _object{0};
  std::vector<PlistRef> _keys;
  std::vector<PlistRef> _values;
  std::size_t _nextName = 0;
};

}  // namespace orbiq
