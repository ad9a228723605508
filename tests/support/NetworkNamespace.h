#pragma once

#include <memory>
#include <string>
#include <vector>

namespace orbiq::test {

/// Puts the process into fresh namespaces of these kinds (CLONE_NEW…), as a user who is root there.
/// What is mounted there stays there. To be called before the process has other threads. False,
/// with errno, where that is forbidden.
bool enterNamespaces(int kinds);

/// A network of the test's own: the process is put into a fresh network namespace, in which only
/// the loopback link is up. Each operation runs the `ip` command and fails the test if that fails.
class NetworkNamespace {
 public:
  /// To be called before the process has other threads. Null if the machine does not allow it, with
  /// the reason in `refusal`; then the test is to be skipped.
  static std::unique_ptr<NetworkNamespace> enter(std::string& refusal);

  /// Two links that are each other's far end; both are down.
  void addVethPair(const std::string& name, const std::string& peer);
  void setUp(const std::string& link);
  void setDown(const std::string& link);
  /// `address` with its prefix length: "10.0.0.1/24". IPv6 addresses are usable at once.
  void addAddress(const std::string& link, const std::string& address);
  /// `way` in the words of `ip`: "via 10.0.0.2", "dev wwan0 metric 5", "via fd00::2".
  void addDefaultRoute(const std::string& way);
  void removeDefaultRoute(const std::string& way);
  /// Anything else: the arguments of `ip`.
  void ip(const std::string& arguments);

 private:
  NetworkNamespace() = default;
};

}  // namespace orbiq::test
