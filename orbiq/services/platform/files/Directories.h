#pragma once

#include <string>

namespace orbiq {

/// Makes a directory and what is missing above it, for this user alone (0700). Returns 0 or the
/// error number.
int makeDirectories(const std::string& path);

/// Syncs the directory that holds the path, so that the file's name outlasts a loss of power.
/// Returns 0 or the error number.
int syncDirectoryOf(const std::string& path);

}  // namespace orbiq
