#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/ArchiveFrame.h"
#include "orbiq/services/platform/archive/ExtendablePlist.h"
#include "orbiq/services/platform/archive/FrontVector.h"
#include "orbiq/services/platform/archive/InternTable.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// Writes an array of objects as a keyed archive in the binary property-list container.
///
///     archiver.beginRootArray();
///     for (const auto& request : queue) archiver.addElement(*request);
///     const KeyedArchiver::Bytes bytes = archiver.finish();
///
/// One object that is referred to twice is stored once. An archiver can be used again; it then
/// reuses its memory and what it has encoded: the elements are written last one first, each with
/// all that no later one refers to, so that an array that has lost its first elements is a longer
/// one's beginning, with another ending, and one that has got more behind them differs from a
/// shorter one by what the new elements refer to and by the numbers. The bytes are the same either
/// way. Not thread-safe; the archived objects must not change meanwhile.
class KeyedArchiver {
 public:
  /// What the samples and all that they refer to name – classes, fields, parameters – stands once
  /// in every archive. Other objects can be archived as well.
  [[gnu::cold]] explicit KeyedArchiver(std::span<const Archivable* const> samples = {});
  [[gnu::cold]] ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  /// Starts a new archive and forgets the last one.
  void beginRootArray();
  /// Appends an element. The object must live until `finish`.
  void addElement(const Archivable& object) { _elements.push_back(&object); }
  struct Bytes {
    std::string_view all;
    /// So many of the first ones are those of the last archive.
    std::size_t kept;
  };
  /// The archive's bytes, valid until the next call of any of these. Throws `std::length_error`
  /// beyond 4 GiB.
  Bytes finish();

  /// Gives back the memory of a long archive: the next one is encoded as if it were the first.
  [[gnu::cold]] void forget();

  /// For `Archivable::encodeWithCoder`: each writes one field of the object being encoded. Keys
  /// must be literals. An object must live until `finish` returns; texts and parameters are kept
  /// alive that long. A parameter whose text is null is left out.
  void encodeObject(const Archivable* object, std::string_view key);
  void encodeString(const String& text, std::string_view key);
  void encodeDate(const std::optional<Date>& date, std::string_view key);
  void encodeParameters(const SharedParameters& parameters, std::string_view key);
  void encodeInteger(std::int64_t number, std::string_view key);
  void encodeBoolean(bool value, std::string_view key);

 private:
  /// What an entry of the archive's object table stands for.
  enum class Kind : std::uint8_t { kObject, kText, kParameters, kClass, kUnshared };
  static constexpr std::size_t kSharedKinds = 4;
  /// Marks the number of an entry that is in the block.
  static constexpr std::uint32_t kInBlock = 0x8000'0000U;
  static constexpr std::size_t kEndingObjects = 4;

  /// An entry of the object table that is being encoded. It is listed when it is first referred to
  /// and written when its turn comes, so that nothing nests.
  struct Listed {
    const void* address;  ///< null for one that no other can refer to
    Kind kind;
    PlistRef uidRef;  ///< the UID value that leads here
    PlistRef object;  ///< once it is written
  };
  /// An entry of the last archive.
  struct Known {
    const void* address;
    std::uint32_t uidHandle;
    Kind kind;
  };
  /// An object of the last archive, as it was encoded.
  struct Changeable {
    const Archivable* object;
    std::uint64_t revision;
  };
  /// An element with all that it brought; of entries there are as many as of UIDs.
  struct Segment {
    const Archivable* element;
    std::uint32_t uidHandle;  ///< while it is being encoded, the UID value's number
    std::uint32_t changeables;
    ExtendablePlist::Extent extent;
  };

  struct AddressHash {
    std::uint64_t operator()(const void* address) const {
      return reinterpret_cast<std::uintptr_t>(address);
    }
  };
  using AddressTable = InternTable<const void*, AddressHash>;

  /// The elements' numbers, last one first.
  const Archivable* element(std::size_t index) const {
    return _elements[_elements.size() - 1 - index];
  }

  // Going on with the last archive; each says so if that cannot be done.
  bool goOn(std::size_t& kept);
  std::optional<std::size_t> countAddedElements() const;
  std::size_t countChangedSegments() const;
  void dropOldestSegment();
  bool extend(std::size_t added);
  bool isMostlyForgotten() const;
  bool findSuccessors();

  void encodeAnew();
  void forgetSegments();
  void encodeAll(PlistRefSize refSize);
  void beginBlock();
  void encodeSegment(const Archivable& element);
  void encodeListed(std::size_t index);
  void takeBlock();
  std::string_view encodeEnding();

  PlistRef encodeFields(const Archivable& object);
  PlistRef encodeMapping(const Parameters& parameters);
  void learnKeyList(const Parameters& parameters);
  PlistRef encodeClass(const ArchivedClass& archivedClass);

  PlistRef addEntry(Kind kind, const void* address, PlistRef object);
  /// The entry's index, and whether it was not there yet.
  std::pair<std::uint32_t, bool> entryFor(Kind kind, const void* address);
  void noteOwner(std::uint32_t serial);
  PlistRef objectUid(const Archivable& object);
  PlistRef textUid(const String& text, bool mayBeFleeting);
  PlistRef parameterKeyUid(std::string_view key);
  PlistRef classUid(const ArchivedClass& archivedClass);
  PlistRef fieldName(std::string_view name);
  void addField(std::string_view key, PlistRef value);

  ArchiveVocabulary _vocabulary;
  bool _learns = false;
  std::optional<ArchiveFrame> _frame;
  std::vector<const Archivable*> _elements;

  // The last archive: what `_plist` holds, last element first.
  ExtendablePlist _plist;
  FrontVector<Segment> _segments;
  FrontVector<Changeable> _changeables;
  FrontVector<Known> _known;
  FrontVector<std::uint32_t> _table;  ///< the handles of the entries' objects
  std::uint32_t _newest = 0;          ///< the first segment's serial number
  bool _holdsMutableText = false;     ///< which changes without a revision
  bool _holdsRepeated = false;        ///< an element that is not its own segment's
  bool _isWhole = false;              ///< and was handed out

  // The segments that are being encoded.
  PlistObjects _block;
  std::vector<Listed> _listed;
  std::vector<Segment> _blockSegments;
  std::vector<Changeable> _blockChangeables;
  std::vector<PlistRef> _successors;
  std::size_t _owners = 0;  ///< so many segments of the last archive lose something to the block

  // By identity, for each kind: the entry's index, marked, if it is in the block; else the serial
  // number of the last segment that had it. A table for each kind, since addresses may coincide.
  std::array<AddressTable, kSharedKinds> _entries;

  PlistObjects _ending;
  std::vector<PlistRef> _tableRefs;
  // Scratch of the container that is being put together.
  std::vector<PlistRef> _keys;
  std::vector<PlistRef> _values;
  // An address stands for its object only as long as that is not replaced by another.
  std::vector<String> _heldTexts;
  std::vector<SharedParameters> _heldParameters;
};

}  // namespace orbiq
