#include "orbiq/public/orbiqTagger/orbiqTagger.h"

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"

orbiqTagger::~orbiqTagger() = default;

orbiq::String orbiqTagger::orbiqVersion() { return orbiq::DeviceContext::orbiqVersion(); }

void orbiqTagger::setLoggingMode(orbiq::LoggingMode mode) {
  _loggingMode = mode;
  orbiqLogger::sharedLogger().setLoggingMode(mode);
}
