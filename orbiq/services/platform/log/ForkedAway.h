#pragma once

namespace orbiq {

/// `inForkedChild`, for what the application calls: the first such call in each child is logged. It
/// is printed whatever the threshold of the logger, which stands on a higher floor.
bool isForkedAway();

}  // namespace orbiq
