#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/Archivable.h"
#include "orbiq/services/platform/BinaryPlistWriter.h"
#include "orbiq/services/platform/Date.h"
#include "orbiq/services/platform/InternTable.h"
#include "orbiq/services/platform/Parameters.h"
#include "orbiq/services/platform/String.h"

namespace orbiq {

/// Writes an array of objects as a keyed archive in the binary property-list container.
///
///     archiver.beginRootArray();
///     for (const auto& request : queue) archiver.addElement(*request);
///     const KeyedArchiver::Bytes bytes = archiver.finish();
///
/// One object that is referred to twice is stored once. An archiver can be used again; it then
/// reuses its memory and, where elements were only removed from the front, what it has encoded: the
/// elements are written last one first, each with all that no later one refers to, so that a
/// shorter array is the beginning of a longer one with another ending. The bytes are the same
/// either way. Not thread-safe; the archived objects must not change meanwhile.
class KeyedArchiver {
 public:
  KeyedArchiver();
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  /// Starts a new archive and forgets the last one.
  void beginRootArray();
  /// Appends an element. The object must live until `finish`.
  void addElement(const Archivable& object);
  struct Bytes {
    std::string_view all;
    /// So many of the first ones are those of the last archive.
    std::size_t kept;
  };
  /// The archive's bytes, valid until the next call of any of these. Throws `std::length_error`
  /// beyond 4 GiB.
  Bytes finish();

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
  enum class Kind : std::uint8_t { kNull, kRoot, kObject, kText, kDate, kParameters, kClass };

  /// An entry of the object table; its index is its UID. It is listed when it is first referred to
  /// and written when its turn comes, so that nothing nests.
  struct Entry {
    const void* address;
    Kind kind;
    PlistRef uidRef;  ///< the UID value that leads here, once there is one
  };

  struct AddressHash {
    std::uint64_t operator()(const void* address) const {
      return reinterpret_cast<std::uintptr_t>(address);
    }
  };
  // One table for each kind, since addresses of different kinds may coincide.
  using AddressTable = InternTable<const void*, AddressHash>;

  /// A literal; its characters are not looked at.
  struct Name {
    const char* characters = nullptr;
    std::size_t size = 0;
    bool operator==(const Name&) const = default;
  };
  struct NameHash {
    std::uint64_t operator()(const Name& name) const {
      return reinterpret_cast<std::uintptr_t>(name.characters) + name.size;
    }
  };

  /// An element in the writer, with where all that it brought ends.
  struct Encoded {
    const Archivable* element;
    PlistRef uidRef;
    std::size_t entryCount;
    std::size_t changeableCount;
    BinaryPlistWriter::Mark mark;
  };
  /// An object in the writer, as it was encoded.
  struct Changeable {
    const Archivable* object;
    std::uint64_t revision;
  };
  /// What every archive's ending refers to; written before the elements.
  struct Frame {
    PlistRef objectsKey, classKey, arrayClass, version, archiver, top;
    PlistRef versionKey, archiverKey, topKey, tableKey;
  };

  using RefSize = BinaryPlistWriter::RefSize;

  bool holdsElements() const;
  void forgetEarlierElements();
  static bool fits(const Encoded& last, RefSize refSize);
  void encodeElements(RefSize refSize);
  void encodeFrame();
  void encodeListed(const Archivable* element, std::uint32_t uid);
  void encodeEntry(std::uint32_t uid);
  /// Returns the list's top object.
  PlistRef encodeEnding();
  PlistRef encodeFields(const Archivable& object);
  PlistRef encodeMapping(const Parameters& parameters);
  PlistRef encodeClass(const ArchivedClass& archivedClass);

  std::uint32_t addEntry(Kind kind, const void* address, PlistRef objectRef = UINT32_MAX);
  std::uint32_t entryOf(const Archivable& object);
  std::uint32_t entryOfText(const String& text);
  std::uint32_t entryOfParameterKey(std::string_view key);
  PlistRef uidRef(std::uint32_t uid);
  PlistRef classRef(const ArchivedClass& archivedClass);
  PlistRef keyRef(std::string_view key);
  void addField(std::string_view key, PlistRef value);

  BinaryPlistWriter _writer;
  std::vector<const Archivable*> _elements;
  // What the writer holds before the ending: the frame under null, then the elements, last one
  // first.
  std::vector<Encoded> _encoded;
  std::vector<Changeable> _changeables;
  std::vector<Entry> _entries;
  std::vector<PlistRef> _table;  ///< the entries' objects, once they are written
  Frame _frame{};
  bool _holdsMutableText = false;  ///< which changes without a revision
  bool _isHandedOut = false;       ///< what the writer holds, with one ending
  // UIDs by identity, those of parameter keys by their text; references of names.
  AddressTable _objects;
  AddressTable _texts;
  AddressTable _parameters;
  AddressTable _classes;
  InternTable<std::string_view, std::hash<std::string_view>> _parameterKeys;
  InternTable<Name, NameHash> _names;
  // Scratch of the container that is being put together.
  std::vector<PlistRef> _keys;
  std::vector<PlistRef> _values;
  // An address stands for its object only as long as that is not replaced by another.
  std::vector<String> _heldTexts;
  std::vector<SharedParameters> _heldParameters;
};

}  // namespace orbiq
