#pragma once

#include <exception>
#include <type_traits>
#include <utility>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"

namespace orbiq {

/// Runs what may run out of memory. An exception is logged as an ERROR and ends here; then the
/// answer is `otherwise`. What is no exception, such as the end of a cancelled thread, passes.
template <class Body, class Answer>
Answer withoutThrowing(const Body& body, Answer otherwise) try {
  return body();
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), LoggingModeError);
  return otherwise;
}

/// The same for what answers nothing.
template <class Body>
  requires std::is_void_v<std::invoke_result_t<const Body&>>
void withoutThrowing(const Body& body) {
  withoutThrowing([&] { return body(), true; }, false);
}

}  // namespace orbiq
