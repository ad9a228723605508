#include "orbiq/services/platform/archive/Archivable.h"

namespace orbiq {

std::uint64_t Archivable::nextRevision() {
  static constinit std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace orbiq
