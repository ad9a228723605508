#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace orbiq {

/// An open file, closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : _number(number) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept { swap(other); }
  Descriptor& operator=(Descriptor other) noexcept {
    swap(other);
    return *this;
  }
  void swap(Descriptor& other) noexcept { std::swap(_number, other._number); }

  int number() const { return _number; }
  bool isOpen() const { return _number >= 0; }

 private:
  int _number = -1;
};

/// Writes the bytes from number `from` on, at their places in the file. Returns 0 or the error
/// number.
int writeAll(const Descriptor& file, std::string_view bytes, std::size_t from = 0);

/// Reads what is left of the file; no value if that fails or is more than `limit` bytes (EFBIG);
/// `errno` then says why.
std::optional<std::string> readAll(const Descriptor& file, std::size_t limit);

}  // namespace orbiq
