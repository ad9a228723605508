#pragma once

#include <string>

namespace orbiq {

/// The application's library directory, whether it exists or not. Any thread.
const std::string& libraryDirectory();

}  // namespace orbiq
