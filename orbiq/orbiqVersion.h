#pragma once

/// @file
/// The library's version.

#include "orbiq/services/platform/base/Export.h"

/// Always 1.0, whatever the library's version; for programs that ask for a number.
extern ORBIQ_EXPORT const double orbiq_iOSVersionNumber;

/// The library's build identification: "orbiq", a blank and its whole version.
extern ORBIQ_EXPORT const char* const orbiq_iOSVersionString;
