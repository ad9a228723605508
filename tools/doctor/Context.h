#pragma once

#include <memory>
#include <optional>
#include <string>

#include "orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/time/Date.h"
#include "tools/doctor/Probe.h"

namespace orbiq::doctor {

struct Options {
  std::string server;
  std::string serial;
  std::string bundleIdentifier;
  std::string libraryDirectory;
  std::string caBundle;
  bool assumesReachable = false;
  bool sends = false;
  /// Only the server is looked at, as whoever runs it does.
  bool checksServer = false;
};

/// What the steps know of each other.
struct Context {
  Options options;

  /// Why the road ends before the servers; empty as long as it goes on.
  std::string obstacle;
  /// What is asked for the authorization.
  std::optional<Url> url;
  /// How the connection to its server is made.
  Way way;
  Connected connected;
  /// The last answer, and when it came.
  std::optional<HttpResponse> answer;
  Date answeredAt;
  std::shared_ptr<orbiqTaggerID> tagger;
  std::shared_ptr<orbiqAuth> authorization;
  /// Where a hit would be sent.
  std::optional<Url> hit;

  /// Whether the library's directory is the application's, and not one of the doctor's name.
  bool isPlaceKnown() const {
    return !options.bundleIdentifier.empty() ||
           HostApplication::current().libraryDirectory.view().starts_with('/');
  }
};

}  // namespace orbiq::doctor
