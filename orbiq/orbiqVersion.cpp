#include "orbiq/orbiqVersion.h"

constinit const double orbiq_iOSVersionNumber = 1.0;

constinit const char* const orbiq_iOSVersionString = "orbiq " ORBIQ_VERSION;
