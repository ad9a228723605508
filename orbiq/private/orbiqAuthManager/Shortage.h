#pragma once

#include <memory>
#include <new>
#include <string>

namespace orbiq {

/// This machine had too little of what the text says: memory, descriptors or threads.
class Shortage : public std::bad_alloc {
 public:
  explicit Shortage(const std::string& text) : _text(std::make_shared<const std::string>(text)) {}
  const char* what() const noexcept override { return _text->c_str(); }

 private:
  std::shared_ptr<const std::string> _text;  // shared, as copies must not need memory
};

}  // namespace orbiq
