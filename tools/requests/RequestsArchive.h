#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "orbiq/services/platform/archive/KeyedArchiveReader.h"
#include "tools/requests/Container.h"
#include "tools/requests/Fault.h"
#include "tools/requests/Request.h"

namespace orbiq::requests {

/// What a requests file holds. Unlike the library, which takes a file whole or not at all, it reads
/// what can be read, and says what cannot.
class RequestsArchive {
 public:
  explicit RequestsArchive(std::string bytes);

  const std::vector<Request>& requests() const { return _requests; }
  const Faults& faults() const { return _faults; }
  /// What reads as something else than it is, or as nothing, but does no harm.
  const std::vector<std::string>& notes() const { return _notes; }
  /// Whether an application would load the file at its start.
  bool isLoadable() const { return _isLoadable; }
  std::size_t size() const { return _size; }

  /// The archive itself; null if there is none. Reading it takes from a budget, too.
  KeyedArchiveReader* reader() { return _reader ? &*_reader : nullptr; }

  /// "an array", "of class NSURL", …
  std::string described(const PlistObject& object);

 private:
  void readList();
  void readElement(std::uint64_t uid, const PlistObject& place);
  void checkClasses();
  void findRequests();
  Request readRequest(const PlistObject& object);
  void readAuthorization(const PlistObject& object, Request& request);
  std::optional<std::vector<Parameter>> readParameters(const PlistObject& object);

  /// Notes the keys that a record should have and has not, and those that nobody reads.
  void checkKeys(const PlistObject& record, std::span<const std::string_view> keys);
  void noteTexts();

  PlistObject objectOf(const PlistObject& object, std::string_view key, std::string_view className);
  std::optional<std::string> textOf(const PlistObject& object, std::string_view key);
  std::optional<PlistNumber> numberOf(const PlistObject& object, std::string_view key);
  std::optional<std::int64_t> integerOf(const PlistObject& object, std::string_view key);
  bool booleanOf(const PlistObject& object, std::string_view key);
  std::optional<double> dateOf(const PlistObject& object, std::string_view key);
  std::string text(const PlistObject& characters);
  void addFault(const PlistObject& object, std::string expected);
  void addNote(std::string_view key, const PlistObject& value);

  std::size_t _size;
  bool _isLoadable = false;
  Faults _faults;
  Container _container;
  std::optional<KeyedArchiveReader> _reader;
  std::vector<Request> _requests;
  std::vector<std::string> _notes;
  std::unordered_set<std::uint64_t> _checkedRecords;  ///< their numbers
};

}  // namespace orbiq::requests
