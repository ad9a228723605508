#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"

#include <cmath>
#include <cstdint>
#include <string>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/OfThisThread.h"
#include "orbiq/services/platform/base/Random.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "orbiq/services/platform/threads/Thread.h"

namespace orbiq {
namespace {

constexpr std::intptr_t kPhone = 0;
constexpr std::intptr_t kPad = 1;
constexpr std::intptr_t kTelevision = 2;

const char* deviceKind() {
  const std::optional<std::intptr_t> idiom = HostApplication::current().userInterfaceIdiom;
  if (idiom == kPad) return "ipad";
  return idiom == kTelevision ? "tv" : "iphone";
}

}  // namespace

String DeviceContext::orbiqVersion() { return HostApplication::current().shortVersion; }

String DeviceContext::userAgent() {
  const HostDescription& host = HostApplication::current();
  // The library's version is the application's, so it stands here twice.
  return withoutControlCharacters(host.bundleName.description() + "/" +
                                  host.shortVersion.description() + " orbiq SDK v" +
                                  orbiqVersion().description() + " apple " + deviceKind());
}

String DeviceContext::appleDID() {
  const auto& advertisingIdentifier = HostApplication::current().advertisingIdentifier;
  if (!advertisingIdentifier) {
    orbiqLogger::log_withMode("Can't get did", LoggingModeInfo);
    return nullptr;
  }
  String identifier;
  // Whether there is one to give is the host's to decide: no tracking preference is asked for, and
  // nothing stands in for a missing identifier.
  if (!runTask([&] { identifier = advertisingIdentifier().copy(); })) {
    orbiqLogger::log_withMode("The advertising identifier's provider threw an exception",
                              LoggingModeError);
    return nullptr;
  }
  // Mostly the text that was there before: then the requests that wait share one.
  if (String* const last = ofThisThread<String>()) {
    if (identifier == *last) {
      identifier = *last;
    } else {
      *last = identifier;
    }
  }
  orbiqLogger::log_withMode([&] { return "Using did : " + identifier.description(); },
                            LoggingModeInfo);
  return identifier;
}

Parameters DeviceContext::defaultParametersForRequest() {
  Parameters parameters;
  if (String version = orbiqVersion(); !version.isNull()) {
    parameters.emplace("v", std::move(version));
  }
  parameters.emplace("n", nineRandomDigits());
  return parameters;
}

GraphicsFloat DeviceContext::screenDiagonal() {
  const HostDescription& host = HostApplication::current();
  // No screen has no size. A scale of 1 keeps the quotient a number, also where none was told.
  const Screen screen = host.mainScreen.value_or(Screen{});
  const GraphicsFloat told = screen.nativeScale.value_or(screen.scale);
  const GraphicsFloat scale = told > 0 && std::isfinite(told) ? told : 1;
  const bool isPhone = host.userInterfaceIdiom.value_or(kPhone) == kPhone;
  const GraphicsFloat pixelsPerInch = isPhone ? 163 : 132;
  // The scale cancels, but for rounding.
  const GraphicsFloat height = screen.height * scale;
  const GraphicsFloat width = screen.width * scale;
  return std::sqrt(height * height + width * width) / (pixelsPerInch * scale);
}

String DeviceContext::nineRandomDigits() {
  constexpr std::uint32_t kBillion = 1'000'000'000;
  // The one in front keeps the zeros behind it.
  return std::to_string(kBillion + randomUint32() % kBillion).substr(1);
}

}  // namespace orbiq
