#include "tools/collector/LineBuffer.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <string>

namespace orbiq::collector {

int LineBuffer::sync() {
  std::string line;
  if (_dropped > 0) {
    line.append("(").append(std::to_string(_dropped)).append(" lines were not read)\n");
  }
  line += str();
  str(std::string());
  // A pipe that is ready takes this many bytes without waiting.
  if (line.size() > PIPE_BUF) line.replace(PIPE_BUF - 1, std::string::npos, "\n");
  pollfd ready{_descriptor, POLLOUT, 0};
  const bool isTaken = poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0 &&
                       write(_descriptor, line.data(), line.size()) >= 0;
  _dropped = isTaken ? 0 : _dropped + 1;
  return 0;
}

}  // namespace orbiq::collector
