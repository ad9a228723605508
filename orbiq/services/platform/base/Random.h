#pragma once

#include <cstdint>
#include <string>

namespace orbiq {

/// Uniform over all values, from the kernel's generator, of which each thread keeps some in store.
/// Arms the fork guard: a forked child would draw the same ones. Any thread.
std::uint32_t randomUint32();

/// A random (version 4) UUID in upper case, 36 characters. Any thread.
std::string randomUuid();

}  // namespace orbiq
