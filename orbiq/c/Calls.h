#pragma once

#include <cxxabi.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <string_view>

#include "orbiq/orbiq_c.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/services/platform/text/String.h"

/// What the functions of the C interface have in common.
namespace orbiq::c {

/// What every function that can fail runs in. Only the end of the caller's thread passes, which was
/// cancelled in a log sink.
template <class Call>
orbiq_status guarded(const Call& call) try {
  return call();
} catch (const abi::__forced_unwind&) {
  throw;
} catch (const std::bad_alloc&) {
  return ORBIQ_ERROR_MEMORY;
} catch (...) {
  return ORBIQ_ERROR_SYSTEM;
}

/// The same for what a forked child cannot do.
template <class Call>
orbiq_status unlessForked(const Call& call) {
  return guarded([&]() -> orbiq_status {
    return orbiqAgent::isForkedAway() ? orbiq_status{ORBIQ_ERROR_FORKED} : call();
  });
}

/// The same for what needs the agent.
template <class Call>
orbiq_status withAgent(const Call& call) {
  return unlessForked([&] { return call(orbiqAgent::sharedAgent()); });
}

template <class Table>
bool isIndexOf(const Table& table, std::int32_t which) {
  return which >= 0 && static_cast<std::size_t>(which) < std::size(table);
}

/// Whether a text can be given out to the caller's buffer at all.
bool canHold(const char* buffer, std::size_t capacity);
/// Copies the text into the caller's buffer, cut between two characters if need be, as the C header
/// promises.
orbiq_status giveOut(const String& text, char* buffer, std::size_t capacity, std::size_t* length);
/// The same for a literal, of which no text is made.
orbiq_status giveOut(std::string_view characters, char* buffer, std::size_t capacity,
                     std::size_t* length);

}  // namespace orbiq::c
