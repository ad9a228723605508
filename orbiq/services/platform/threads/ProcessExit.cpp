#include "orbiq/services/platform/threads/ProcessExit.h"

#include <atomic>

namespace orbiq {
namespace {

std::atomic<bool> exiting{false};

}  // namespace

bool isProcessExiting() noexcept { return exiting; }

void noteProcessExit() noexcept { exiting = true; }

}  // namespace orbiq
