#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/InternTable.h"
#include "orbiq/services/platform/archive/PlistObjects.h"

namespace orbiq {

/// What the objects of an archive name again and again.
struct ArchiveVocabulary {
  std::vector<const ArchivedClass*> classes;
  std::vector<std::string_view> fieldNames;  ///< literals
  /// Of parameters, all the keys that they have.
  std::vector<std::vector<std::string>> parameterKeys;
};

/// The beginning of every keyed archive with one vocabulary: what it names stands here, once, so
/// that it need not be looked for when objects are encoded or removed.
class ArchiveFrame {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;
  static constexpr std::uint32_t kNullUid = 0;
  static constexpr std::uint32_t kRootUid = 1;

  /// The vocabulary must live as long as the frame. A name that it has twice is written once.
  ArchiveFrame(const ArchiveVocabulary& vocabulary, PlistRefSize refSize);
  ArchiveFrame(const ArchiveFrame&) = delete;
  ArchiveFrame& operator=(const ArchiveFrame&) = delete;

  const PlistObjects& objects() const { return _objects; }
  /// The object of each entry, by its UID; the root's is set anew by each archive.
  std::span<const PlistRef> table() const { return _table; }
  PlistRef uidRef(std::uint32_t uid) const { return _uidRefs[uid]; }
  PlistRef booleanRef(bool value) const { return _booleans[value ? 1 : 0]; }

  // Each answers `kNone` for what is not in the frame.
  PlistRef integerRef(std::int64_t number) const;
  PlistRef fieldNameRef(std::string_view name) const {
    // Mostly it is the very literal.
    const PlistRef ref = _literals.find({name.data(), name.size()});
    return ref != kNone ? ref : _fieldNames.find(name);
  }
  PlistRef classRef(const ArchivedClass& archivedClass) const {
    return _classes.find(&archivedClass);
  }
  PlistRef parameterKeyRef(std::string_view key) const { return _parameterKeys.find(key); }
  /// The array of these keys' UID values.
  PlistRef keyListRef(std::span<const PlistRef> keyUids) const;

  /// What an archive's ending refers to.
  struct Ending {
    PlistRef objectsKey, classKey, arrayClass, version, archiver, top;
    PlistRef versionKey, archiverKey, topKey, tableKey;
  };
  const Ending& ending() const { return _ending; }

 private:
  /// A literal; its characters are not looked at.
  struct Literal {
    const char* characters = nullptr;
    std::size_t size = 0;
    bool operator==(const Literal&) const = default;
  };
  struct LiteralHash {
    std::uint64_t operator()(const Literal& literal) const {
      return reinterpret_cast<std::uintptr_t>(literal.characters) + literal.size;
    }
  };
  struct ClassHash {
    std::uint64_t operator()(const ArchivedClass* archivedClass) const {
      return reinterpret_cast<std::uintptr_t>(archivedClass);
    }
  };
  using TextTable = InternTable<std::string_view, std::hash<std::string_view>>;

  PlistRef addFieldName(std::string_view name);
  /// Returns the UID value that leads to the object.
  PlistRef addEntry(PlistRef object);
  void addClass(const ArchivedClass& archivedClass);
  void addParameterKeys(std::span<const std::string> keys);

  PlistObjects _objects;
  std::vector<PlistRef> _table;
  std::vector<PlistRef> _uidRefs;
  std::array<PlistRef, 2> _booleans{};
  std::array<PlistRef, 4> _integers{};  ///< what types, modes, states and counts mostly are
  TextTable _fieldNames;
  InternTable<Literal, LiteralHash> _literals;
  TextTable _parameterKeys;
  struct KeyList {
    std::vector<PlistRef> uids;
    PlistRef array;
  };
  std::vector<KeyList> _keyLists;
  InternTable<const ArchivedClass*, ClassHash> _classes;
  Ending _ending{};
};

extern const ArchivedClass kArchivedArray, kArchivedDictionary, kArchivedDate;

}  // namespace orbiq
