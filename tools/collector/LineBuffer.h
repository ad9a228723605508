#pragma once

#include <cstddef>
#include <sstream>

namespace orbiq::collector {

/// Buffer of a stream of lines that never waits: what its descriptor does not take at once, since
/// nobody reads it, is dropped, and the next line that is taken says how many were. One thread at a
/// time.
class LineBuffer : public std::stringbuf {
 public:
  explicit LineBuffer(int descriptor) : _descriptor(descriptor) {}

 private:
  int sync() override;

  const int _descriptor;
  std::size_t _dropped = 0;
};

}  // namespace orbiq::collector
