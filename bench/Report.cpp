#include "bench/Report.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace orbiq::bench {

void report(const Row& row) {
  std::printf("  %s: %g %s", row.name.c_str(), row.value, row.unit.c_str());
  if (row.low != row.high) std::printf(" (half of the runs %g to %g)", row.low, row.high);
  std::printf("\n");
  std::fflush(stdout);
  const char* const path = std::getenv("ORBIQ_BENCH_RESULTS");
  if (path == nullptr || *path == '\0') return;
  nlohmann::json line{{"group", row.group}, {"name", row.name}, {"value", row.value},
                      {"unit", row.unit},   {"low", row.low},   {"high", row.high},
                      {"aim", nullptr}};
  if (row.aim) line["aim"] = {{"kind", nameOf(row.aim->kind)}, {"bound", row.aim->bound}};
  std::ofstream file(path, std::ios::app);
  // At once and whole, so that a program that fails later leaves what it has measured.
  file << line.dump() + "\n" << std::flush;
  if (!file) throw std::runtime_error(std::string("cannot write ") + path);
}

void reportSamples(const std::string& group, const std::string& name,
                   const std::vector<double>& samples, const std::string& unit,
                   std::optional<Aim> aim) {
  report(
      {group, name, median(samples), unit, aim, quantile(samples, 0.25), quantile(samples, 0.75)});
}

}  // namespace orbiq::bench
