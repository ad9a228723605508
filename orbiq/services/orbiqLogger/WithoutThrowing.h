#pragma once

#include <exception>
#include <type_traits>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"

namespace orbiq {

/// Runs what may run out of memory. An exception is logged as an ERROR and ends here; then the
/// answer is null, false, empty or none. What is no exception, such as the end of a cancelled
/// thread, passes.
template <class Body, class Answer = std::invoke_result_t<const Body&>>
Answer withoutThrowing(const Body& body) try {
  return body();
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), LoggingModeError);
  return Answer();
}

}  // namespace orbiq
