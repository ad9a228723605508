#include "tools/requests/SlotLayout.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "orbiq/services/platform/archive/ArchiveLayout.h"
#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/archive/BinaryPlistReader.h"

namespace orbiq::requests {
namespace {

using Kind = PlistObject::Kind;
using Layout = ArchiveLayout;

constexpr std::size_t kFrameAt = 8;
constexpr std::size_t kMostFrameObjects = 10'000;

class Finder {
 public:
  Finder(std::string_view bytes, std::size_t refSize)
      : _bytes(bytes), _reader(BinaryPlistReader::withoutFrame(bytes, refSize)) {
    _found.refSize = refSize;
  }

  std::optional<FoundObjects> find() {
    if (!findFrame() || !findTable()) return std::nullopt;
    findSlots();
    return std::move(_found);
  }

 private:
  /// Whatever every archive has, up to the dictionary that leads to the object table.
  bool findFrame() {
    std::size_t at = kFrameAt;
    while (_found.offsets.size() < kMostFrameObjects) {
      if (_found.offsets.size() == Layout::kRootArray) _found.offsets.resize(Layout::kTable + 1);
      const PlistObject object = _reader.objectAt(at);
      if (object.kind == Kind::kNone) return false;
      _found.offsets.push_back(at);
      at = _reader.endOf(object);
      if (object.kind == Kind::kUid) ++_frameUids;
      if (leadsToTable(object)) {
        // Damaged bytes may lead there too early.
        if (_found.offsets.size() <= Layout::kTable) return false;
        _found.offsets[Layout::kRootArray] = at;
        return true;
      }
    }
    return false;
  }

  bool leadsToTable(const PlistObject& object) const {
    if (object.kind != Kind::kDictionary || object.count != 4) return false;
    // In the place of the last value's number.
    const std::size_t end = _reader.endOf(object);
    return loadBigEndian(_bytes.data() + end - _found.refSize, _found.refSize) == Layout::kTable;
  }

  /// The table stands behind the room for all elements, of which only some are there.
  bool findTable() {
    const std::size_t rootAt = _found.offsets[Layout::kRootArray];
    for (std::size_t elements = 1; elements < _bytes.size(); elements *= 2) {
      const std::size_t at = rootAt + Layout::kArrayHeadSize + _found.refSize * elements;
      const PlistObject table = _reader.objectAt(at);
      _slots = Layout::slotsFor(elements);
      // An entry for null and one for the root, as there are UIDs, and one for each class.
      if (table.kind != Kind::kArray || table.count != _frameUids + Layout::kSlotUids * _slots) {
        continue;
      }
      _found.offsets[Layout::kTable] = at;
      _found.end = _reader.endOf(table);
      return true;
    }
    return false;
  }

  void findSlots() {
    std::size_t uidAt = _found.end;
    const std::size_t uidSize = 1 + _found.refSize;
    const std::size_t slotsAt = uidAt + uidSize * Layout::kSlotUids * _slots;
    const std::size_t slotBytes = Layout::slotBytes(_found.refSize);
    for (std::size_t slot = 0; slot < _slots; ++slot) {
      for (std::uint32_t i = 0; i < Layout::kSlotUids; ++i, uidAt += uidSize) add(uidAt);
      std::size_t at = slotsAt + slot * slotBytes;
      const std::size_t end = at + slotBytes;
      for (std::uint32_t i = 0; i < Layout::kSlotObjects; ++i) {
        at = at < end ? add(at) : add(_bytes.size());
      }
    }
  }

  /// Returns where the next object may be.
  std::size_t add(std::size_t at) {
    const PlistObject object = _reader.objectAt(at);
    if (object.kind == Kind::kNone) {
      _found.offsets.push_back(kFrameAt);
      return _bytes.size();
    }
    _found.offsets.push_back(at);
    const std::size_t end = _reader.endOf(object);
    _found.end = std::max(_found.end, end);
    return end;
  }

  std::string_view _bytes;
  BinaryPlistReader _reader;
  FoundObjects _found;
  std::size_t _frameUids = 0;
  std::size_t _slots = 0;
};

}  // namespace

std::optional<FoundObjects> objectsInSlots(std::string_view bytes) {
  for (const std::size_t refSize : {2U, 4U}) {
    if (auto found = Finder(bytes, refSize).find()) return found;
  }
  return std::nullopt;
}

}  // namespace orbiq::requests
