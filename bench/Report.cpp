#include "bench/Report.h"

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace orbiq::bench {

void report(const Row& row) {
  const char* const path = std::getenv("ORBIQ_BENCH_RESULTS");
  if (path == nullptr || *path == '\0') return;
  nlohmann::json line{{"group", row.group}, {"name", row.name}, {"value", row.value},
                      {"unit", row.unit},   {"low", row.low},   {"high", row.high},
                      {"aim", nullptr},     {"met", nullptr}};
  if (row.aim) {
    line["aim"] = {{"kind", nameOf(row.aim->kind)}, {"bound", row.aim->bound}};
    line["met"] = isMet(row.value, *row.aim);
  }
  std::ofstream file(path, std::ios::app);
  // At once and whole, so that a program that fails later leaves what it has measured.
  file << line.dump() + "\n" << std::flush;
  if (!file) throw std::runtime_error(std::string("cannot write ") + path);
}

void reportRatios(const std::string& group, const std::string& name,
                  const std::vector<double>& ratios, std::optional<Aim> aim) {
  report({group, name, median(ratios), "", aim, quantile(ratios, 0.25), quantile(ratios, 0.75)});
}

}  // namespace orbiq::bench
