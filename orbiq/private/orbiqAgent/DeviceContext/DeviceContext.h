#pragma once

#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// What hits say of the application and the device. Holds no state; any thread.
class DeviceContext {
 public:
  /// The application's short version; may be null.
  static String orbiqVersion();
  /// The User-Agent of every exchange.
  static String userAgent();
  /// The advertising identifier; null where there is none.
  static String appleDID();
  /// The parameters that every hit starts from.
  static Parameters defaultParametersForRequest();
  /// The diagonal of the main screen in inches; 0 without a screen.
  static GraphicsFloat screenDiagonal();

  /// A random number of exactly nine decimal digits.
  static String nineRandomDigits();
};

}  // namespace orbiq
