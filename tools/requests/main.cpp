#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tools/requests/Json.h"
#include "tools/requests/LiveFile.h"
#include "tools/requests/RequestsArchive.h"
#include "tools/requests/Table.h"
#include "tools/requests/Text.h"

namespace {

using orbiq::requests::FileWatch;
using orbiq::requests::RequestsArchive;
using orbiq::requests::Snapshot;
using orbiq::requests::TableStyle;

enum ExitCode : int { kSound = 0, kDamaged = 1, kUsage = 2, kUnreadable = 3 };

constexpr const char* kCannotWrite = "orbiq-requests: standard output cannot be written\n";
constexpr const char* kDirectoryVariable = "ORBIQ_LIBRARY_DIRECTORY";
constexpr const char* kStandardInput = "-";
constexpr const char* kFileInLibrary = "/orbiqCache/requests.ser";

struct Options {
  std::string file;
  std::string libraryDirectory;
  std::string bundleIdentifier;
  bool isJson = false;
  bool isFollowing = false;
  bool isWide = false;
};

void describe(CLI::App& app, Options& options) {
  app.set_version_flag("--version", "orbiq-requests " ORBIQ_VERSION);
  auto* const file = app.add_option("FILE", options.file, "The requests file; - is standard input");
  auto* const directory = app.add_option("--library-directory", options.libraryDirectory,
                                         "Show the file in this library directory of an "
                                         "application (default: $ORBIQ_LIBRARY_DIRECTORY)");
  auto* const identifier = app.add_option("--bundle-identifier", options.bundleIdentifier,
                                          "Show the file of the application of that name")
                               ->check(orbiq::requests::whatIsWrongWithIdentifier);
  file->excludes(directory)->excludes(identifier);
  directory->excludes(identifier);
  app.add_flag("--follow", options.isFollowing, "Show the file again whenever it changes");
  app.add_flag("--json", options.isJson,
               "Print JSON with all that the file holds; with --follow one line each time");
  app.add_flag("--wide", options.isWide, "Show long texts whole");
  app.footer(
      "Exit status: 0 an application would load the file and nothing is wrong in it, 1 it is "
      "damaged or no requests file, 2 wrong usage, 3 it cannot be read, or changes too fast.");
}

/// No value if the options name no file.
std::optional<std::string> locate(const Options& options) {
  if (!options.file.empty()) return options.file;
  if (!options.libraryDirectory.empty()) return options.libraryDirectory + kFileInLibrary;
  if (!options.bundleIdentifier.empty()) {
    orbiq::HostApplication::describe({.bundleIdentifier = options.bundleIdentifier});
    return orbiq::libraryDirectory() + kFileInLibrary;
  }
  const char* const directory = std::getenv(kDirectoryVariable);
  if (directory == nullptr || *directory == '\0') return {};
  if (*directory != '/') {  // the library does not use one either
    throw CLI::ValidationError(kDirectoryVariable, "must be an absolute path");
  }
  return std::string(directory) + kFileInLibrary;
}

std::string causeOf(int failure) { return std::generic_category().message(failure); }

int show(const Options& options, const std::string& path, const Snapshot& snapshot) {
  RequestsArchive archive(snapshot.bytes);
  if (options.isJson) {
    printJson(std::cout, path, snapshot, archive, options.isFollowing);
    std::cout << '\n';
  } else {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const TableStyle style{orbiq::requests::isColoured(), options.isWide,
                           std::chrono::duration<double>(now).count()};
    printTable(std::cout, path, snapshot, archive, style);
  }
  if (!snapshot.isSettled) return kUnreadable;
  return archive.isLoadable() && archive.faults().isEmpty() ? kSound : kDamaged;
}

void showFailure(const Options& options, const std::string& path, int failure) {
  if (options.isJson) {
    const nlohmann::ordered_json json = {{"file", path}, {"failure", causeOf(failure)}};
    std::cout << orbiq::requests::dumped(json, true) << '\n';
  } else {
    std::cout << orbiq::requests::escaped(path) << ": " << causeOf(failure) << '\n';
  }
}

int follow(const Options& options, const std::string& path) {
  FileWatch watch(path);  // before the first look: no change is missed
  const bool isTerminal = isatty(STDOUT_FILENO) == 1;
  std::optional<Snapshot> shown;
  do {
    Snapshot snapshot = orbiq::requests::look(path);
    if (shown && snapshot.shows(*shown)) continue;
    if (!options.isJson && isTerminal) {
      std::cout << "\033[H\033[2J";
    } else if (!options.isJson && shown) {
      std::cout << '\n';
    }
    if (snapshot.failure == 0) {
      show(options, path, snapshot);
    } else {
      showFailure(options, path, snapshot.failure);
    }
    std::cout.flush();
    shown = std::move(snapshot);
  } while (std::cout && watch.wait());
  return std::cout ? kSound : kUnreadable;
}

int run(const Options& options, const std::string& path) {
  if (options.isFollowing) {
    if (follow(options, path) == kSound) return kSound;
    std::cerr << kCannotWrite;
    return kUnreadable;
  }
  const Snapshot snapshot =
      path == kStandardInput ? orbiq::requests::lookAtStandardInput() : orbiq::requests::look(path);
  if (snapshot.failure != 0) {
    std::cerr << "orbiq-requests: " << orbiq::requests::escaped(path) << ": "
              << causeOf(snapshot.failure) << "\n";
    return kUnreadable;
  }
  const int code = show(options, path, snapshot);
  std::cout.flush();
  if (std::cout) return code;
  std::cerr << kCannotWrite;
  return kUnreadable;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Shows what waits in a requests file of orbiq, and what is wrong with a damaged one",
               "orbiq-requests");
  Options options;
  describe(app, options);
  tzset();
  try {
    app.parse(argc, argv);
    const std::optional<std::string> path = locate(options);
    if (!path) {
      throw CLI::RequiredError(std::string("FILE, --library-directory, --bundle-identifier or $") +
                               kDirectoryVariable);
    }
    if (options.isFollowing && *path == kStandardInput) {
      throw CLI::ValidationError("--follow", "cannot follow standard input");
    }
    return run(options, *path);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSound : kUsage;
  } catch (const std::exception& error) {
    std::cerr << "orbiq-requests: " << orbiq::requests::escaped(error.what()) << "\n";
    return kUnreadable;
  }
}
