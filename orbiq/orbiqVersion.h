#pragma once

/// @file
/// The library's version.

#include "orbiq/services/platform/Export.h"

/// The first two parts of the library's version, for programs that ask for a number.
extern ORBIQ_EXPORT const double orbiq_iOSVersionNumber;

/// "orbiq" and the library's whole version: "orbiq 1.0.0".
extern ORBIQ_EXPORT const char* const orbiq_iOSVersionString;
