#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orbiq::requests {

/// A place where a file is not what it should be.
struct Fault {
  std::size_t offset = 0;
  std::optional<std::uint64_t> object;  ///< the number of the object it belongs to
  std::string expected;
};

/// The faults of one file; of very many only the first are kept.
class Faults {
 public:
  void add(Fault fault) {
    if (_kept.size() < kMost) {
      _kept.push_back(std::move(fault));
    } else {
      ++_others;
    }
  }
  bool isEmpty() const { return _kept.empty(); }
  const std::vector<Fault>& kept() const { return _kept; }
  std::size_t others() const { return _others; }

 private:
  static constexpr std::size_t kMost = 50;

  std::vector<Fault> _kept;
  std::size_t _others = 0;
};

}  // namespace orbiq::requests
