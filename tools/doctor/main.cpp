#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "orbiq/services/platform/http/HttpClient.h"
#include "tools/doctor/Report.h"
#include "tools/doctor/Steps.h"
#include "tools/requests/Text.h"

namespace {

using orbiq::doctor::Context;
using orbiq::doctor::Options;

enum ExitCode : int { kSound = 0, kBroken = 1, kUsage = 2 };

std::string whatIsWrongWithDirectory(const std::string& path) {
  return path.starts_with('/') ? "" : "the library directory must be an absolute path";
}

struct Settings {
  Options options;
  std::string checkedServer;
  bool checksServer = false;
  bool isJson = false;
};

void describe(CLI::App& app, Settings& settings) {
  Options& options = settings.options;
  app.set_version_flag("--version", "orbiq-doctor " ORBIQ_VERSION);
  auto* const server = app.add_option("--server", options.server,
                                      "The application's authorization server (default: "
                                      "$ORBIQ_AUTHORIZATION_SERVER)");
  app.add_option("--serial", options.serial, "The account to ask for");
  auto* const identifier = app.add_option("--bundle-identifier", options.bundleIdentifier,
                                          "The application's, which names its library directory")
                               ->check(orbiq::requests::whatIsWrongWithIdentifier);
  auto* const directory = app.add_option("--library-directory", options.libraryDirectory,
                                         "The application's library directory, if it sets one "
                                         "(default: $ORBIQ_LIBRARY_DIRECTORY)")
                              ->check(whatIsWrongWithDirectory);
  app.add_option("--ca-bundle", options.caBundle,
                 "The certificates that the application trusts, if it sets them");
  auto* const assume =
      app.add_flag("--assume-reachable", options.assumesReachable,
                   "The application assumes that it is connected (HostDescription's field)");
  auto* const send = app.add_flag("--send", options.sends, "Send one hit, which counts");
  app.add_option("--check-server", settings.checkedServer,
                 "Look at this authorization server alone, as whoever runs it")
      ->excludes(server)
      ->excludes(identifier)
      ->excludes(directory)
      ->excludes(assume)
      ->excludes(send);
  app.add_flag("--json", settings.isJson, "Print JSON");
  app.footer(
      "Exit status: 0 nothing failed, 1 the doctor itself failed, 2 wrong usage, otherwise the "
      "first step that failed: 3 description, 4 library directory, 5 requests file, 6 network, 7 "
      "name, 8 connection, 9 TLS, 10 exchange, 11 clock, 12 access, 13 URL, 14 hit.");
}

int run(Settings& settings) {
  Context context;
  context.options = settings.options;
  if (settings.checksServer) {
    context.options.checksServer = true;
    context.options.server = settings.checkedServer;
  }
  if (!orbiq::prepareHttpForProcess()) throw std::runtime_error("libcurl cannot be set up");
  const bool isColoured = orbiq::requests::isColoured();
  const auto walked = orbiq::doctor::walk(
      context.options.checksServer ? orbiq::doctor::serverSteps() : orbiq::doctor::roadSteps(),
      context, [&](const orbiq::doctor::Walked& each) {
        if (settings.isJson) return;
        std::cout << orbiq::doctor::asText(each, isColoured) << std::flush;
      });
  std::cout << (settings.isJson ? orbiq::doctor::asJson(walked)
                                : orbiq::doctor::summaryOf(walked, isColoured))
            << std::flush;
  if (std::cout) return orbiq::doctor::exitStatusOf(walked);
  std::cerr << "orbiq-doctor: standard output cannot be written\n";
  return kBroken;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Walks the road of a hit, and says at each step what keeps it from arriving",
               "orbiq-doctor");
  Settings settings;
  describe(app, settings);
  try {
    app.parse(argc, argv);
    settings.checksServer = app.count("--check-server") > 0;
    return run(settings);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSound : kUsage;
  } catch (const std::exception& error) {
    std::cerr << "orbiq-doctor: " << orbiq::requests::escaped(error.what()) << "\n";
    return kBroken;
  }
}
