#pragma once

#include <cstdint>
#include <string_view>

/// Makes what a process takes from the machine fail for a while: see `arm`. The program's own
/// definitions stand in the place of the C library's, also for the libraries that it loads.
namespace faults {

enum class Kind { Memory, Descriptors, Threads };
/// By its name, as in "memory".
Kind kindOf(std::string_view name);

/// From now on, the calls of that kind number `first` to `first + count - 1` fail. Counted from 1
/// over all threads.
void arm(Kind kind, std::uint64_t first, std::uint64_t count);
/// Nothing fails any more. How many calls of that kind there were since the arming.
std::uint64_t disarm();

}  // namespace faults
