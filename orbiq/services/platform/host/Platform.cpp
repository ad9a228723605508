#include "orbiq/services/platform/host/Platform.h"

#include <exception>
#include <utility>

#include "orbiq/services/platform/base/OfThisThread.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "orbiq/services/platform/keychain/FileKeychain.h"

namespace orbiq {
namespace {

/// None of libcurl's.
constexpr int kNoClient = -1;

Platform withRealParts(Platform platform) {
  if (!platform.clock) platform.clock = std::make_shared<SystemClock>();
  if (!platform.reachabilitySource) platform.reachabilitySource = makeRouteReachabilitySource();
  if (!platform.makeHttpClient) {
    platform.makeHttpClient = [] {
      return orbiq::makeHttpClient(HostApplication::current().caBundle.toStdString());
    };
  }
  return platform;
}

/// Makes the one platform of the process at the first call, out of `replacement`. Sets `isMadeHere`
/// if it was this call.
const Platform& only(Platform replacement, bool& isMadeHere) {
  static const auto* const platform = [&] {
    isMadeHere = true;
    return new Platform(withRealParts(std::move(replacement)));
  }();
  return *platform;
}

}  // namespace

String Platform::install(Platform platform) {
  bool isMadeHere = false;
  only(std::move(platform), isMadeHere);
  return isMadeHere ? String() : String("the platform is in use already");
}

const Platform& Platform::current() {
  bool ignored = false;
  return only({}, ignored);
}

HttpResult Platform::send(const HttpRequest& request) {
  using Client = std::unique_ptr<HttpClient>;
  Client forThisOne;
  Client* client = nullptr;
  try {
    client = ofThisThread<Client>();
    if (client == nullptr) client = &forThisOne;
    if (!*client) *client = current().makeHttpClient();
  } catch (const std::exception&) {
    // Out of memory, most likely.
  }
  if (client == nullptr || !*client) return {{}, {}, HttpError{kNoClient, "out of memory", true}};
  return (*client)->send(request);
}

Keychain* Platform::currentKeychain() {
  if (Keychain* const replacement = current().keychain.get()) return replacement;
  // A keychain that changed between two calls would make a new identifier.
  HostApplication::settle();
  if (Keychain* const hosts = HostApplication::current().keychain.get()) return hosts;
  // The description that was refused may have named another one, or another place.
  if (HostApplication::wasOnlyRefused()) return nullptr;
  static auto* const store = new FileKeychain(libraryDirectory() + "/orbiqKeychain");
  return store;
}

}  // namespace orbiq
