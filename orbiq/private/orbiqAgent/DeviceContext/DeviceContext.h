#pragma once

#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"

/// What hits say of the application and the device. Holds no state; any thread.
namespace orbiq::DeviceContext {

/// The application's short version; may be null.
String orbiqVersion();
/// The User-Agent of every exchange.
String userAgent();
/// The advertising identifier; null where there is none.
String appleDID();
/// The parameters that every hit starts from.
Parameters defaultParametersForRequest();
/// The diagonal of the main screen in inches; 0 without a screen.
GraphicsFloat screenDiagonal();

/// A random number of exactly nine decimal digits.
String nineRandomDigits();

}  // namespace orbiq::DeviceContext
