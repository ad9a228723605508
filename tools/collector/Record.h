#pragma once

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

namespace orbiq::collector {

/// A file to which every exchange is added, as a line of JSON. One thread at a time.
class Record {
 public:
  /// Throws `std::runtime_error` if the file cannot be opened for writing. What it holds stays.
  explicit Record(const std::string& path);

  /// The line is in the file when this returns. The first failure is told on standard error.
  void add(const nlohmann::json& exchange);
  /// Whether every line got there.
  bool isWhole() const { return _isWhole; }

 private:
  const std::string _path;
  std::ofstream _file;
  bool _isWhole = true;
};

}  // namespace orbiq::collector
