#include "bench/Measure.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "tests/support/Role.h"

namespace orbiq::bench {
namespace {

std::vector<double> runOnce(const std::string& role, const std::vector<std::string>& arguments) {
  test::RoleProcess process(role, arguments);
  std::istringstream line(process.readLine());
  std::vector<double> row;
  for (double number = 0; line >> number;) row.push_back(number);
  if (process.wait() != 0) throw std::runtime_error("a run of " + role + " failed");
  return row;
}

void warnOfMemoryDisk(const std::string& directory) {
  struct statfs fileSystem{};
  if (statfs(directory.c_str(), &fileSystem) == 0 && fileSystem.f_type == TMPFS_MAGIC) {
    std::cout << "note: " << directory << " is not on a disk; saves look faster than they are\n";
  }
}

/// A fresh directory that is removed with all that is in it.
class StateDirectory {
 public:
  explicit StateDirectory(const std::string& parent) : _path(parent + "/orbiq-bench-XXXXXX") {
    if (mkdtemp(_path.data()) == nullptr) throw std::runtime_error("no directory in " + parent);
  }
  ~StateDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;

  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

}  // namespace

double quantile(std::vector<double> samples, double part) {
  const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(samples.size())));
  const auto wanted =
      samples.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
  std::nth_element(samples.begin(), wanted, samples.end());
  return *wanted;
}

const char* nameOf(Aim::Kind kind) {
  if (kind == Aim::Kind::kBelow) return "below";
  return kind == Aim::Kind::kAtMost ? "at most" : "at least";
}

std::vector<std::vector<double>> rowsOfRuns(const std::string& role, std::size_t runs,
                                            std::size_t columns,
                                            const std::vector<std::string>& arguments) {
  std::vector<std::vector<double>> rows;
  for (std::size_t run = 0; run < runs; ++run) {
    std::vector<std::string> ofThisRun{std::to_string(run)};
    ofThisRun.insert(ofThisRun.end(), arguments.begin(), arguments.end());
    rows.push_back(runOnce(role, ofThisRun));
    if (rows.back().size() != columns)
      throw std::runtime_error("a run of " + role + " said too little");
  }
  return rows;
}

std::vector<double> columnOf(const std::vector<std::vector<double>>& rows, std::size_t column) {
  std::vector<double> values;
  values.reserve(rows.size());
  for (const std::vector<double>& row : rows) values.push_back(row.at(column));
  return values;
}

std::vector<double> ratiosOf(const std::vector<std::vector<double>>& rows, std::size_t dividend,
                             std::size_t divisor) {
  std::vector<double> ratios;
  ratios.reserve(rows.size());
  for (const std::vector<double>& row : rows) ratios.push_back(row.at(dividend) / row.at(divisor));
  return ratios;
}

int runMeasurement(int argc, char** argv, void (*measure)(const std::string& directory)) try {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                           "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    unsetenv(name);
  }
  if (argc > 2 && std::string(argv[1]) == "--role") {
    return test::runRole(argv[2], {argv + 3, argv + argc});
  }
  const std::string parent =
      argc > 1 ? std::filesystem::absolute(argv[1]).string()
               : std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
  warnOfMemoryDisk(parent);
  const StateDirectory directory(parent);
  measure(directory.path());
  return 0;
} catch (const std::exception& error) {
  std::cerr << "cannot measure: " << error.what() << "\n";
  return 1;
}

}  // namespace orbiq::bench
