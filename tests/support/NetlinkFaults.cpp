#include "tests/support/NetlinkFaults.h"

#include <errno.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

using orbiq::test::NetlinkFaults;

// These take the C library's place for the whole program.
#define ORBIQ_REPLACES extern "C" __attribute__((visibility("default")))

ORBIQ_REPLACES int socket(int domain, int type, int protocol) noexcept {
  const int error = domain == AF_NETLINK ? NetlinkFaults::opening.load() : 0;
  if (error == 0) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  errno = error;
  return -1;
}

ORBIQ_REPLACES ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
  const ssize_t received = recvfrom(socket, buffer, size, flags, nullptr, nullptr);
  struct {
    nlmsghdr header;
    nlmsgerr error;
  } answer{};
  const int error = NetlinkFaults::answers;
  if (error == 0 || received < static_cast<ssize_t>(sizeof answer)) return received;
  std::memcpy(&answer, buffer, sizeof answer);
  answer.header.nlmsg_type = NLMSG_ERROR;
  answer.header.nlmsg_len = sizeof answer;
  answer.error.error = -error;
  std::memcpy(buffer, &answer, sizeof answer);
  ++NetlinkFaults::count;
  return sizeof answer;
}
