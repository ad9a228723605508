#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace orbiq::bench {

/// The value that the given part (0 to 1) of the samples does not exceed. Not of an empty list.
double quantile(std::vector<double> samples, double part);
inline double median(std::vector<double> samples) { return quantile(std::move(samples), 0.5); }

/// What a ratio should be.
struct Aim {
  enum class Kind { kBelow, kAtMost, kAtLeast };
  Kind kind;
  double bound;
};
/// "below", "at most" or "at least".
const char* nameOf(Aim::Kind kind);

/// Microseconds that the work takes.
template <class Work>
double microseconds(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

/// Runs this program again in a role, so many times, one after the other. Each run prints one line
/// of `columns` numbers, which make a row of the result. Throws if one does not.
std::vector<std::vector<double>> rowsOfRuns(const std::string& role, std::size_t runs,
                                            std::size_t columns,
                                            const std::vector<std::string>& arguments);
/// One column of the rows.
std::vector<double> columnOf(const std::vector<std::vector<double>>& rows, std::size_t column);
/// One column divided by another, for each row.
std::vector<double> ratiosOf(const std::vector<std::vector<double>>& rows, std::size_t dividend,
                             std::size_t divisor);

/// The `main` of a program that measures: runs a role, or `measure` with the directory that the
/// first argument names (default: the program's own). Proxies of the environment are left out.
/// Returns 0 if everything could be measured, whatever came of it.
int runMeasurement(int argc, char** argv, void (*measure)(const std::string& directory));

}  // namespace orbiq::bench
