#pragma once

#include "orbiq/services/platform/Export.h"

/// The library's version number, for programs that ask for one.
extern ORBIQ_EXPORT const double orbiq_iOSVersionNumber;

/// The library's build identification.
extern ORBIQ_EXPORT const char* const orbiq_iOSVersionString;
