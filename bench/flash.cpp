// What a hit writes to the disk, and what it costs to have it there before a power loss.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "orbiq/services/platform/HostApplication.h"
#include "tests/support/Role.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 5;
constexpr std::size_t kHits = 40;
constexpr std::array<std::size_t, 3> kDepths{1, 100, 500};

/// As the host asks for it: settled once per process, so each has processes of its own.
enum class Mode : std::size_t {
  kOrdinary,
  kSynced,  ///< the ordinary mode, and somebody who syncs the file after each save
  kDurable
};
constexpr std::array<const char*, 3> kModes{"ordinary", "ordinary and fdatasync", "durable"};

/// What the process has handed to `write`, in bytes.
std::uint64_t writtenBytes() {
  std::ifstream counters("/proc/self/io");
  for (std::string name; counters >> name;) {
    std::uint64_t value = 0;
    counters >> value;
    if (name == "wchar:") return value;
  }
  throw std::runtime_error("the kernel does not count what is written");
}

void syncFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0 || fdatasync(file) != 0) throw std::runtime_error("cannot sync " + path);
  close(file);
}

/// Prints the bytes that a hit writes, its microseconds, the file's size, and the bytes that a
/// removal writes while the queue is drained. A hit comes to a queue of that depth and leaves it:
/// two saves.
int hits(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const auto mode = static_cast<Mode>(std::stoul(arguments.at(3)));
  const String problem = HostApplication::describe(
      {.bundleIdentifier = "tv.example.player",
       .durability = mode == Mode::kDurable ? Durability::PowerLoss : Durability::ProcessEnd});
  if (!problem.isNull()) throw std::runtime_error(problem.toStdString());
  const std::string path = arguments.at(1) + "/flash-" + arguments.at(2) + "-" + arguments.at(3) +
                           "-" + arguments.at(0) + ".ser";
  RequestsFile file;
  RequestQueue queue;
  Requests requests;
  const auto save = [&] {
    file.save(path, queue);
    if (mode == Mode::kSynced) syncFile(path);
  };
  while (queue.size() < depth) queue.push_back(requests.next());
  save();
  const auto hit = [&] {
    queue.push_back(requests.next());
    save();
    queue.pop_front();
    save();
  };
  hit();  // makes the spare file
  const std::uint64_t before = writtenBytes();
  const double time = microseconds([&] {
    for (std::size_t i = 0; i < kHits; ++i) hit();
  });
  const auto written = static_cast<double>(writtenBytes() - before);
  const auto size = static_cast<double>(std::filesystem::file_size(path));
  const std::uint64_t beforeRemovals = writtenBytes();
  while (!queue.empty()) {
    queue.pop_front();
    save();
  }
  const auto removed = static_cast<double>(writtenBytes() - beforeRemovals);
  std::printf("%f %f %f %f\n", written / kHits, time / kHits, size,
              removed / static_cast<double>(depth));
  return 0;
}
const test::RoleRegistration kHitsRole("hits", hits);

void reportColumn(const std::string& name, const std::vector<double>& samples,
                  const std::string& unit) {
  report({"flash", name, median(samples), unit, std::nullopt, quantile(samples, 0.25),
          quantile(samples, 0.75)});
}

std::vector<double> column(const std::vector<std::vector<double>>& rows, std::size_t index) {
  std::vector<double> values;
  for (const std::vector<double>& row : rows) values.push_back(row.at(index));
  return values;
}

void measure(const std::string& directory) {
  std::printf("a hit that comes and goes: what it writes, and how long both saves take\n");
  std::printf("  %5s %-24s %12s %12s %12s %12s\n", "depth", "", "bytes", "us", "bytes of file",
              "bytes, drained");
  for (const std::size_t depth : kDepths) {
    const std::string suffix = ", depth " + std::to_string(depth);
    std::vector<double> ordinary;
    for (std::size_t mode = 0; mode < kModes.size(); ++mode) {
      const auto rows =
          rowsOfRuns("hits", kRuns, 4, {directory, std::to_string(depth), std::to_string(mode)});
      const std::vector<double> times = column(rows, 1);
      std::printf("  %5zu %-24s %12.0f %12.1f %12.0f %12.0f\n", depth, kModes[mode],
                  median(column(rows, 0)), median(times), median(column(rows, 2)),
                  median(column(rows, 3)));
      reportColumn(std::string("a hit's saves, ") + kModes[mode] + suffix, times, "µs");
      if (mode == 0) {
        ordinary = times;
        reportColumn("written for a hit" + suffix, column(rows, 0), "bytes");
        reportColumn(
            "written for a removal, a queue of " + std::to_string(depth) + " being drained",
            column(rows, 3), "bytes");
        continue;
      }
      std::vector<double> ratios;
      for (std::size_t run = 0; run < kRuns; ++run) ratios.push_back(times[run] / ordinary[run]);
      reportRatios("flash", std::string("a hit's saves, ") + kModes[mode] + " / ordinary" + suffix,
                   ratios, std::nullopt);
    }
  }
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
