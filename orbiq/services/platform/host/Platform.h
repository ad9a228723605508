#pragma once

#include <functional>
#include <memory>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/keychain/Keychain.h"
#include "orbiq/services/platform/network/NetworkReachability.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Clock.h"

namespace orbiq {

/// The parts of the machine that can be replaced as a whole. What is left null is the real one.
struct Platform {
  std::shared_ptr<const Clock> clock = {};
  std::shared_ptr<NetworkReachabilitySource> reachabilitySource = {};
  std::function<std::unique_ptr<HttpClient>()> makeHttpClient = {};
  /// Null: the host's or else the file store.
  std::shared_ptr<Keychain> keychain = {};

  /// Works once and only before the first use; returns null, or why it was refused.
  static String install(Platform platform);
  static const Platform& current();

  static Date now() { return current().clock->now(); }
  /// Sends by the calling thread's own client, which keeps its connection; by one for this request
  /// alone where a thread that is ending has destroyed its own. A client that cannot be made is an
  /// error of this request, and the next one tries again.
  static HttpResult send(const HttpRequest& request);
  /// The keychain to use; null where descriptions were only refused. Where it comes from or gets
  /// its place from the description of the application, that is settled by the call.
  static Keychain* currentKeychain();
};

}  // namespace orbiq
