#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace orbiq::requests {

/// Where the objects of a file are that has lost its offset table.
struct FoundObjects {
  std::vector<std::size_t> offsets;  ///< by number
  std::size_t end = 0;               ///< of the last that was found
  std::size_t refSize = 0;
};

/// In a file of this library's own layout, see `ArchiveLayout`; no value for another. What cannot
/// be found leads to "$null". A text that is too long for a slot is not found.
std::optional<FoundObjects> objectsInSlots(std::string_view bytes);

}  // namespace orbiq::requests
