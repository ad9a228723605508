// What the agent says of the application and the device.
#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"

orbiq::String orbiqAgent::orbiqVersion() { return orbiq::DeviceContext::orbiqVersion(); }

orbiq::String orbiqAgent::userAgent() { return orbiq::DeviceContext::userAgent(); }

orbiq::String orbiqAgent::appleDID() { return orbiq::DeviceContext::appleDID(); }

orbiq::Parameters orbiqAgent::defaultParametersForRequest() const {
  return orbiq::DeviceContext::defaultParametersForRequest();
}

orbiq::GraphicsFloat orbiqAgent::screenDiagonal() const {
  return orbiq::DeviceContext::screenDiagonal();
}

double orbiqAgent::timeIntervalBetweenServerAndDevice() const {
  return orbiqAuthManager::manager().timeIntervalBetweenServerAndDevice();
}
