#pragma once

#include <cstddef>
#include <string>

#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {

/// The application around the library, and its network, which counts as reachable at first. Before
/// any use of the library; `libraryDirectory` must not exist yet or be empty.
void describeApplication(const std::string& authorizationServer,
                         const std::string& libraryDirectory);

/// Whether the library's questions about the network are answered with "reachable".
void setReachable(bool reachable);

/// Counts how often the requests file was replaced.
class SaveCounter {
 public:
  explicit SaveCounter(const std::string& libraryDirectory);
  ~SaveCounter();
  SaveCounter(const SaveCounter&) = delete;
  SaveCounter& operator=(const SaveCounter&) = delete;

  /// Waits until the file was replaced so many times since this was made.
  void waitFor(std::size_t saves);

 private:
  int _watch = -1;
  std::size_t _saves = 0;
};

/// An application whose queue holds so many requests, the first of which an authorization server
/// has taken and never answers: the agent's threads rest, and what is added stays aside.
class StalledApplication {
 public:
  StalledApplication(const std::string& directory, std::size_t depth);

 private:
  test::ScriptedServer _server;
};

}  // namespace orbiq::bench
