#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tools/collector/CollectorServer.h"
#include "tools/collector/ConnectionThreads.h"
#include "tools/collector/LineBuffer.h"
#include "tools/collector/Record.h"

namespace {

using orbiq::collector::Behaviour;
using orbiq::collector::CollectorServer;
using orbiq::collector::LineBuffer;
using orbiq::collector::Record;

enum ExitCode : int { kFailed = 1, kUsage = 2 };

struct Options {
  std::string address = "127.0.0.1";
  int port = 8080;
  std::string portFile;
  std::string record;
  /// In the form of the run-time interface, so that both are checked by the same rules.
  nlohmann::json behaviour = nlohmann::json::object();
};

template <class Value>
void addBehaviour(CLI::App& app, Options& options, const std::string& flag, const std::string& key,
                  const std::string& help) {
  app.add_option_function<Value>(
      flag, [&options, key](const Value& value) { options.behaviour[key] = value; }, help);
}

void describe(CLI::App& app, Options& options) {
  app.set_version_flag("--version", "orbiq-collector " ORBIQ_VERSION);
  app.add_option("--address", options.address, "Loopback address to listen on")
      ->check(CLI::IsMember({"127.0.0.1", "::1"}))
      ->capture_default_str();
  app.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--port-file", options.portFile, "File that gets the port once it listens");
  app.add_option("--record", options.record,
                 "File to which each exchange is added, as a line of JSON");
  addBehaviour<std::string>(app, options, "--access", "access",
                            "Field \"access\": full, denied, restricted or any text");
  addBehaviour<std::string>(app, options, "--host", "host",
                            "Field \"host\": another base URL for the hits");
  addBehaviour<int>(app, options, "--auth-status", "authStatus", "Status of authorizations");
  addBehaviour<int>(app, options, "--hit-status", "hitStatus", "Status of hits");
  addBehaviour<int>(app, options, "--delay-ms", "delayMs", "Wait before each answer");
  addBehaviour<std::string>(app, options, "--stall", "stall",
                            "Take requests and do not answer: auth, hit, both or none");
  addBehaviour<int>(app, options, "--date-skew-seconds", "dateSkewSeconds",
                    "Added to the Date header of authorizations");
  addBehaviour<std::string>(
      app, options, "--malformed", "malformed",
      "Fault of authorizations: none, missing-field, no-date, bad-date, not-utf8, empty or cut");
}

/// Whole or not at all: whoever waits for the file may read it as soon as it is there.
void writePort(const std::string& path, int port) {
  const std::string temporary = path + ".new";
  std::ofstream file(temporary);
  file << port << '\n';
  file.close();
  if (!file || std::rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

int serve(const Options& options, const Behaviour& behaviour) {
  // Before any thread starts, so that only the one that waits for them gets these signals.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  orbiq::collector::raiseConnectionLimit();
  std::optional<Record> record;
  if (!options.record.empty()) record.emplace(options.record);
  LineBuffer buffer(STDOUT_FILENO);
  std::ostream lines(&buffer);
  CollectorServer server(options.address, options.port, behaviour, lines,
                         record ? &*record : nullptr);
  lines << "listening on " << server.baseUrl() << "/" << std::endl;
  if (!options.portFile.empty()) writePort(options.portFile, server.port());

  std::thread waiter([&server, &ending] {
    int signal = 0;
    sigwait(&ending, &signal);
    server.stop();
  });
  const bool stopped = server.run();
  if (!stopped) pthread_kill(waiter.native_handle(), SIGINT);
  waiter.join();
  if (!stopped) throw std::runtime_error("the server ended by itself");
  return !record || record->isWhole() ? 0 : kFailed;
}

int failed(const std::exception& error, ExitCode code) {
  std::cerr << "orbiq-collector: " << error.what() << "\n";
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Authorization server and hit server on loopback", "orbiq-collector");
  Options options;
  describe(app, options);
  try {
    app.parse(argc, argv);
    return serve(options, changed(Behaviour(), options.behaviour));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  } catch (const std::invalid_argument& error) {
    return failed(error, kUsage);
  } catch (const std::exception& error) {
    return failed(error, kFailed);
  }
}
