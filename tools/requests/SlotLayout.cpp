#include "tools/requests/SlotLayout.h"

#include <algorithm>
#include <cstdint>

#include "orbiq/services/platform/archive/ArchiveLayout.h"
#include "orbiq/services/platform/archive/BinaryPlistReader.h"

namespace orbiq::requests {
namespace {

using Kind = PlistObject::Kind;
using Layout = ArchiveLayout;

constexpr std::size_t kMagicSize = 8;

/// The objects of a layout for so many elements, if there is one.
std::optional<FoundObjects> find(std::string_view bytes, std::size_t elements,
                                 std::size_t refSize) {
  const auto reader = BinaryPlistReader::withoutFrame(bytes, refSize);
  const Layout::Places places(elements, refSize);
  const std::size_t slots = Layout::slotsFor(elements);
  const PlistObject table = reader.objectAt(places.table);
  const std::size_t entries = Layout::kSlotEntries * slots;
  if (table.kind != Kind::kArray || table.count != entries) return std::nullopt;

  FoundObjects found{.offsets = {}, .end = places.slots, .refSize = refSize};
  for (std::size_t entry = 0; entry < entries; ++entry) {
    found.offsets.push_back(kMagicSize + (1 + refSize) * entry);
  }
  found.offsets.push_back(places.rootArray);
  found.offsets.push_back(places.table);
  for (std::size_t slot = 0; slot < slots; ++slot) {
    std::size_t at = places.slots + slot * Layout::slotBytes(refSize);
    const std::size_t end = at + Layout::slotBytes(refSize);
    for (std::uint32_t i = 0; i < Layout::kSlotObjects; ++i) {
      const PlistObject object = at < end ? reader.objectAt(at) : PlistObject();
      const bool isThere = object.kind != Kind::kNone;
      // The first object of all is "$null".
      found.offsets.push_back(isThere ? at : places.slots);
      at = isThere ? reader.endOf(object) : end;
      if (isThere) found.end = std::max(found.end, at);
    }
  }
  return found;
}

}  // namespace

std::optional<FoundObjects> objectsInSlots(std::string_view bytes) {
  for (const std::size_t refSize : {2U, 4U}) {
    for (std::size_t elements = 1; elements < bytes.size(); elements *= 2) {
      if (auto found = find(bytes, elements, refSize)) return found;
    }
  }
  return std::nullopt;
}

}  // namespace orbiq::requests
