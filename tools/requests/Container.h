#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orbiq/services/platform/archive/BinaryPlistReader.h"
#include "tools/requests/Fault.h"

namespace orbiq::requests {

/// A file's bytes as a binary property list. Where the trailer or the offset table is damaged, the
/// objects are found in this library's slots or one behind the other; their offsets are those of
/// the file all the same.
class Container {
 public:
  Container(std::string bytes, Faults& faults);
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  /// False if nothing can be read.
  bool isOpen() const { return _reader.has_value(); }
  const BinaryPlistReader& reader() const { return *_reader; }
  bool isRebuilt() const { return _isRebuilt; }
  /// Where the objects end.
  std::size_t end() const { return _end; }

  /// The dictionary of the archive: the top object or, where that cannot be read, whatever has an
  /// object table.
  PlistObject archive() const;
  /// Tells of objects that cannot be read and of references that lead nowhere; of a rebuilt
  /// property list nothing, since all that follows from the first fault. `uidCount` is the number
  /// of entries in the archive's object table, 0 if there is none.
  void check(std::uint64_t uidCount, Faults& faults) const;
  /// The first objects, at most so many, that call themselves ASCII and are not.
  std::vector<std::uint64_t> textsBeyondAscii(std::size_t most) const;

 private:
  std::string _bytes;
  std::optional<BinaryPlistReader> _reader;
  bool _isRebuilt = false;
  std::size_t _end = 0;
};

}  // namespace orbiq::requests
