#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "tests/support/Application.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {

/// A whole answer with a Date, of a clock that is so far ahead.
std::string accepted(const std::string& body, int status = 200, std::time_t ahead = 0);

struct Report {
  std::string text;
  int exitStatus = 0;
};

/// Runs the doctor. Words with a "=" in front of its options are variables of its environment.
Report reportOf(const std::vector<std::string>& arguments);

/// A machine with a network, an application's directory, and servers of both kinds.
class World {
 public:
  World() {
    network = NetworkNamespace::enter(refusal);
    if (!network) return;
    network->addVethPair("up0", "far0");
    for (const char* const link : {"up0", "far0"}) network->setUp(link);
    network->addAddress("up0", "10.9.0.1/24");
    network->addDefaultRoute("via 10.9.0.2");
  }

  /// The authorization server; it answers everything by that.
  void serve(Handler handler, const TlsIdentity* tls = nullptr) {
    authorizations.emplace(std::move(handler), tls);
    server = authorizations->url("/auth/");
  }
  void serve(const std::string& whole, const TlsIdentity* tls = nullptr) {
    serve([whole](const std::string&) { return whole; }, tls);
  }
  void serve(Script script) {
    authorizations.emplace(std::vector<Script>(3, script));
    server = authorizations->url("/auth/");
  }
  void serveHits(const std::string& whole, const TlsIdentity* tls = nullptr) {
    hits.emplace([whole](const std::string&) { return whole; }, tls);
  }
  std::string grant(const std::string& access) {
    if (!hits) serveHits(answer(200));
    return "access=" + access + "|host=" + hits->url("/hit/") + "|cmsVI=7";
  }
  /// What a queue of one request leaves behind, sent under this access.
  void save(RequestsFile& file, const std::shared_ptr<orbiqAccess>& access) {
    const auto request = streamingRequest();
    request->setAuth(
        orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(nullptr, access, false));
    file.load(requests);
    file.added(request);
    file.save(requests, {request});
  }

  std::vector<std::string> arguments() const {
    std::vector<std::string> all = variables;
    all.insert(all.end(), {"--server", server, "--serial", serial, "--ca-bundle", bundle});
    all.insert(all.end(), place.begin(), place.end());
    all.insert(all.end(), options.begin(), options.end());
    return all;
  }

  std::string refusal;
  std::unique_ptr<NetworkNamespace> network;
  const TemporaryDirectory directory;
  const std::string library = directory.path() / "library";
  const std::string requests = library + "/orbiqCache/requests.ser";
  const CertificateAuthority authority;
  std::optional<ScriptedServer> hits;
  std::optional<ScriptedServer> authorizations;
  std::string server;
  std::string serial = "ABC";
  std::string bundle = authority.bundle();
  std::vector<std::string> place{"--library-directory", library};
  std::vector<std::string> options;
  std::string says;  ///< what must stand in the report
  std::vector<std::string> variables;
};

}  // namespace orbiq::test
