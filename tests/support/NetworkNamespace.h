#pragma once

#include <string>

namespace orbiq::test {

/// Puts the process into fresh namespaces of these kinds (CLONE_NEW…), as a user who is root there.
/// What is mounted there stays there. To be called before the process has other threads. False,
/// with errno, where that is forbidden.
bool enterNamespaces(int kinds);

/// Puts the process into a fresh network namespace, in which only the loopback link is up. Empty,
/// or the reason why the machine does not allow it; then the test is to be skipped. To be called
/// before the process has other threads.
std::string enterNetwork();

/// Runs these lines of arguments of the command `ip`, and fails the test if one of them fails.
/// Where they are about IPv6 and do not show it, "-6 " stands before the first.
void ip(const std::string& lines);

}  // namespace orbiq::test
