#pragma once

namespace orbiq {

/// Whether the calling thread is in a call of the log sink.
bool isInLogSink() noexcept;

}  // namespace orbiq
