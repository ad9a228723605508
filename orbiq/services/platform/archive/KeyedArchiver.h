#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/ArchiveLayout.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Keeps an array of objects as a keyed archive in the binary property-list container, and edits
/// its bytes at once when an element comes, goes or changes, without encoding the others (see
/// `ArchiveLayout`). Without room for that it is no longer whole, and the caller encodes anew.
///
/// One object that is referred to twice is stored once: its entry of the object table counts its
/// users. The archive keeps it alive, so its address cannot come to mean another object. Not
/// thread-safe.
class KeyedArchiver {
 public:
  using Element = std::shared_ptr<const Archivable>;

  /// Starts a new archive. Throws `std::length_error` beyond 4 GiB.
  void encode(const std::vector<Element>& elements);
  /// Whether the bytes are up to date. If not, nothing but `encode` has an effect.
  bool isWhole() const { return _isWhole && !_holdsMutableText; }

  // What fails, for want of room or memory, leaves an archive that is not whole.
  void append(const Element& element);
  void remove(std::size_t index);
  /// Encodes the record at that address again; no effect if the archive does not have it.
  void change(const void* record);

  /// The archive's bytes.
  const std::string& bytes() const { return _layout->bytes(); }
  /// Which of them have changed since `pagesTaken`.
  const ChangedPages& changedPages() const { return _layout->changedPages(); }
  void pagesTaken() { _layout->pagesTaken(); }

  /// Drops an archive of more than 16 KiB, to give back its memory.
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
  static constexpr PlistRef kNone = UINT32_MAX;
  static constexpr std::int64_t kSmallIntegers = 4;
  /// Where the booleans begin in `_constants`; the small integers come first.
  static constexpr std::size_t kBooleans = 4;
  using Name = std::pair<std::string_view, PlistRef>;
  /// Of the object table.
  struct Entry {
    std::shared_ptr<const void> object;  ///< null for what nothing else can refer to
    std::uint32_t users = 0;
    PlistRef next = kNone;  ///< in the list of those whose addresses hash alike
  };

  bool tryToEncode(const std::vector<Element>& elements, ArchiveLayout::Measure& measure);
  void placeFrame();
  template <class Operation>
  void edit(const Operation& operation);

  PlistRef& listOf(const void* address);
  PlistRef find(const void* address);
  PlistRef add(std::shared_ptr<const void> object);
  void release(PlistRef entry);
  void releaseRefs(PlistRef object);

  // Each returns the number of the UID that leads there, and counts a user.
  template <class Assemble>
  PlistRef uid(std::shared_ptr<const void> object, const Assemble& assembleIt);
  PlistRef objectUid(const Element& object);
  PlistRef textUid(const String& text);
  PlistRef classUid(const ArchivedClass& archivedClass);

  void assembleFields(const Archivable& object);
  void assemble(std::initializer_list<Name> fields);
  void assembleFrom(std::size_t first);
  void addField(std::string_view key, PlistRef value);
  PlistRef nameRef(std::string_view name);
  PlistRef place(bool isForAll = false);
  PlistRef placeArray(std::span<const PlistRef> elements);

  std::optional<ArchiveLayout> _layout;
  bool _isWhole = false;
  bool _holdsMutableText = false;  ///< which changes without a word
  std::vector<Entry> _entries;
  std::vector<PlistRef> _lists;  ///< the first entry of each
  std::array<PlistRef, kBooleans + 2> _constants{};
  std::vector<Name> _names;
  std::size_t _nextName = 0;
  // What is being put together.
  PlistObjects _object{0};
  std::vector<PlistRef> _keys;
  std::vector<PlistRef> _values;
};

}  // namespace orbiq
