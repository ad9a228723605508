#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace orbiq::bench {

/// A row of the table of results.
struct Row {
  std::string group;       ///< "saving", "caller", "draining" ...
  std::string name;        ///< "addition at depth 500 / write and exchange"
  double value;            ///< a ratio, or a number in `unit`
  std::string unit;        ///< "" for a ratio
  std::optional<Aim> aim;  ///< of the value
  double low, high;  ///< half of the runs lie between; both equal to value where there was one run
};

/// Prints the row, and appends it to the file that ORBIQ_BENCH_RESULTS names, if it does, one JSON
/// object per line. Which aims are missed, report.py says.
void report(const Row& row);

/// The same for a list of ratios, or of numbers in a unit: value is the median, low and high the
/// quartiles.
void reportSamples(const std::string& group, const std::string& name,
                   const std::vector<double>& samples, const std::string& unit = "",
                   std::optional<Aim> aim = {});

}  // namespace orbiq::bench
