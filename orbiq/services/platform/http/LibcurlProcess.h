#pragma once

namespace orbiq {

/// Whether libcurl got no memory on this thread; for its user to clear and to ask. libcurl may call
/// what comes of it anything, an empty answer even. Where the host has initialised libcurl before
/// the library, with memory of its own, nobody notes it.
bool& libcurlRanOutOfMemory() noexcept;

}  // namespace orbiq
