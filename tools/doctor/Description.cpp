// What the library would know of the application and its servers.
#include <fcntl.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

constexpr char kServerVariable[] = "ORBIQ_AUTHORIZATION_SERVER";
constexpr char kDirectoryVariable[] = "ORBIQ_LIBRARY_DIRECTORY";

std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

String orNull(const std::string& text) { return text.empty() ? String() : String(text); }

HostDescription descriptionOf(const Options& options) {
  return {.bundleIdentifier = orNull(options.bundleIdentifier),
          .bundleName = "orbiq-doctor",
          .shortVersion = ORBIQ_VERSION,
          .authorizationServer = orNull(options.server),
          .libraryDirectory = orNull(options.libraryDirectory),
          .logSink = [](const LogLine&) {},  // the doctor says it itself
          .caBundle = orNull(options.caBundle),
          .assumeReachable = options.assumesReachable};
}

/// Null, or why the server cannot be asked.
String describe(const Options& options) {
  HostDescription description = descriptionOf(options);
  SystemLog::setSink(description.logSink);
  String problem = HostApplication::describe(description);
  if (problem.isNull()) return HostApplication::authorizationServerProblem();
  // The other steps look at the right places all the same.
  description.authorizationServer = nullptr;
  HostApplication::describe(description);
  return problem;
}

/// Why it is refused, with the server as it may be shown.
std::string shownProblem(std::string problem, const std::string& server) {
  const std::size_t place = server.empty() ? problem.npos : problem.find(server);
  if (place != problem.npos) problem.replace(place, server.size(), shownUrl(server));
  return problem;
}

void refuse(Context& context, const String& problem, Finding& finding) {
  const std::string& option = context.options.server;
  const std::string server = option.empty() ? variable(kServerVariable) : option;
  context.obstacle = "there is no authorization server to ask.";
  finding.fail(server.empty() ? "no-server" : "server-refused",
               "The library would ask nobody: " + shownProblem(problem.toStdString(), server) + ".",
               "Set HostDescription::authorizationServer, " + std::string(kServerVariable) +
                   " or --server to an https URL that ends in \"/\".");
}

void examineServer(Context& context, Finding& finding) {
  const Options& options = context.options;
  const String problem = describe(options);
  if (!problem.isNull()) return refuse(context, problem, finding);
  const std::string server = HostApplication::current().authorizationServer.toStdString();
  const char* const origin = !options.server.empty() ? "the command line" : kServerVariable;
  finding.isFine("The authorization server is " + shownUrl(server) + ", from " + origin + ".");
  if (!options.server.empty() && !variable(kServerVariable).empty() && !options.checksServer) {
    finding.isFine(std::string(kServerVariable) +
                   " is set as well and does not count: what the application sets comes first.");
  }
  const std::string serial =
      options.checksServer && options.serial.empty() ? "orbiq-doctor" : options.serial;
  if (serial.empty()) {
    context.url = Url::fromText(server);
    finding.warn("no-serial", "No account is given, so no authorization is asked for.",
                 "Give the account by --serial.");
    return;
  }
  if (options.serial.empty()) {
    finding.isFine("The account asked for is \"" + serial + "\", as --serial gives none.");
  }
  constexpr std::intptr_t kOfAudienceTaggers = std::numeric_limits<std::intptr_t>::max();
  context.tagger = std::make_shared<orbiqTaggerID>(serial, kOfAudienceTaggers, false);
  context.url = Url::fromText(server + serial);
  if (context.url) return;
  context.obstacle = "the account makes no URL.";
  finding.fail("serial-makes-no-url",
               "The account " + inQuotes(serial) + " makes no URL of the authorization server.",
               "Percent-escape what a URL cannot hold, or ask for another serial.");
}

void examineProxies(Finding& finding) {
  for (const char* const name :
       {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    const std::string value = variable(name);
    if (!value.empty()) finding.isFine(name + (" is " + shownProxy(value)) + ".");
  }
  for (const char* const name : {"no_proxy", "NO_PROXY"}) {
    const std::string value = variable(name);
    if (!value.empty()) finding.isFine(name + (" is " + inQuotes(value)) + ".");
  }
  if (!variable("HTTP_PROXY").empty() && variable("http_proxy").empty()) {
    finding.warn("upper-case-proxy", "HTTP_PROXY is set, which is not read.",
                 "Name it http_proxy.");
  }
}

void examineCertificates(Context& context, Finding& finding) {
  const std::string& bundle = context.options.caBundle;
  if (bundle.empty()) return;
  const Descriptor file(open(bundle.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.isOpen())
    return finding.isFine("The certificates to trust are those of " + bundle + ".");
  finding.fail(
      "ca-bundle",
      "The certificates to trust cannot be read from " + bundle + ": " + causeOf(errno) + ".",
      "Name a file of certificates in PEM.");
}

void examinePlaces(Finding& finding) {
  const std::string directory = variable(kDirectoryVariable);
  if (!directory.empty() && !directory.starts_with('/')) {
    finding.warn("relative-directory",
                 std::string(kDirectoryVariable) + " is not absolute, and does not count.",
                 "Make it an absolute path.");
  }
  const std::string state = variable("XDG_STATE_HOME");
  if (!state.empty() && !state.starts_with('/')) {
    finding.warn("relative-directory", "XDG_STATE_HOME is not absolute, and does not count.",
                 "Make it an absolute path.");
  }
  if (!variable("SSLKEYLOGFILE").empty()) {
    finding.warn("key-log", "SSLKEYLOGFILE is set: the keys of every connection are written there.",
                 "Unset it, unless somebody is to read along.");
  }
}

}  // namespace

Finding examineDescription(Context& context) {
  Finding finding;
  examineServer(context, finding);
  examineProxies(finding);
  examineCertificates(context, finding);
  if (!context.options.checksServer) examinePlaces(finding);
  return finding;
}

}  // namespace orbiq::doctor
