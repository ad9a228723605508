// What the agent says of the application and the device.
#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/services/orbiqLogger/WithoutThrowing.h"

using orbiq::withoutThrowing;
namespace DeviceContext = orbiq::DeviceContext;

orbiq::String orbiqAgent::orbiqVersion() { return DeviceContext::orbiqVersion(); }

orbiq::String orbiqAgent::userAgent() { return withoutThrowing(DeviceContext::userAgent); }

orbiq::String orbiqAgent::appleDID() { return withoutThrowing(DeviceContext::appleDID); }

orbiq::Parameters orbiqAgent::defaultParametersForRequest() const {
  return withoutThrowing(DeviceContext::defaultParametersForRequest);
}

orbiq::GraphicsFloat orbiqAgent::screenDiagonal() const { return DeviceContext::screenDiagonal(); }

double orbiqAgent::timeIntervalBetweenServerAndDevice() const {
  return orbiqAuthManager::manager().timeIntervalBetweenServerAndDevice();
}
