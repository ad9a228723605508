#pragma once

#include <new>
#include <stdexcept>
#include <string>

namespace orbiq {

/// This machine had too little of what the text says: memory, descriptors or threads.
class Shortage : public std::bad_alloc {
 public:
  explicit Shortage(const std::string& text) : _text(text) {}
  const char* what() const noexcept override { return _text.what(); }

 private:
  std::runtime_error _text;  // whose copies need no memory
};

}  // namespace orbiq
