// What a hit writes to the disk, and what it costs to have it there before a power loss.
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
#include "orbiq/services/platform/host/HostApplication.h"
#include "tests/support/Role.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 5;
constexpr std::size_t kHits = 40;
/// A disk may take tens of milliseconds for each.
constexpr std::size_t kSyncedHits = 10;
constexpr std::array<std::size_t, 3> kDepths{1, 100, 500};

/// As the host asks for it: settled once per process, so each has processes of its own.
constexpr std::array<const char*, 2> kModes{"ordinary", "durable"};

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

/// Prints the bytes that a hit writes, its microseconds, the file's size, and, in the ordinary
/// mode, the bytes that a removal writes while the queue is drained. A hit comes to a queue of that
/// depth and leaves it: two saves.
int hits(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const bool isDurable = arguments.at(3) == "1";
  const String problem = HostApplication::describe(
      {.bundleIdentifier = "tv.example.player",
       .durability = isDurable ? Durability::PowerLoss : Durability::ProcessEnd});
  if (!problem.isNull()) throw std::runtime_error(problem.toStdString());
  const std::string path =
      arguments.at(1) + "/flash-" + arguments.at(2) + "-" + arguments.at(3) + ".ser";
  RequestsFile file(path);
  RequestQueue queue;
  Requests requests;
  const auto save = [&] { file.save(queue); };
  while (queue.size() < depth) queue.push_back(requests.next());
  save();
  const auto hit = [&] {
    file.added(queue.emplace_back(requests.next()));
    save();
    queue.pop_front();
    file.removed(0);
    save();
  };
  hit();  // makes the spare file
  const std::size_t count = isDurable ? kSyncedHits : kHits;
  const std::uint64_t before = writtenBytes();
  const double time = microseconds([&] {
                        for (std::size_t i = 0; i < count; ++i) hit();
                      }) /
                      static_cast<double>(count);
  const double written = static_cast<double>(writtenBytes() - before) / static_cast<double>(count);
  // A save that fails says so only in the log.
  if (file.load().size() != depth) throw std::runtime_error("the queue was not saved");
  const auto size = static_cast<double>(std::filesystem::file_size(path));
  const std::uint64_t beforeRemovals = writtenBytes();
  while (!isDurable && !queue.empty()) {
    queue.pop_front();
    file.removed(0);
    save();
  }
  const auto removed = static_cast<double>(writtenBytes() - beforeRemovals);
  std::printf("%f %f %f %f\n", written, time, size, removed / static_cast<double>(depth));
  return 0;
}
const test::RoleRegistration kHitsRole("hits", hits);

using Rows = std::vector<std::vector<double>>;

/// The modes take turns, since a disk is not equally fast all the time.
std::array<Rows, kModes.size()> rowsOfModes(const std::string& directory, std::size_t depth) {
  std::array<Rows, kModes.size()> rows;
  for (std::size_t run = 0; run < kRuns; ++run) {
    const std::string place = directory + "/" + std::to_string(run);
    for (std::size_t mode = 0; mode < rows.size(); ++mode) {
      rows[mode].push_back(
          rowsOfRuns("hits", 1, 4, {place, std::to_string(depth), std::to_string(mode)}).front());
    }
  }
  return rows;
}

void measureDepth(const std::string& directory, std::size_t depth) {
  const std::string suffix = ", depth " + std::to_string(depth);
  const auto rows = rowsOfModes(directory, depth);
  const std::vector<double> ordinary = columnOf(rows[0], 1);
  for (std::size_t mode = 0; mode < rows.size(); ++mode) {
    const std::vector<double> times = columnOf(rows[mode], 1);
    const std::string name = std::string("a hit's saves, ") + kModes[mode];
    reportSamples("flash", name + suffix, times, "µs");
    if (mode == 0) continue;
    std::vector<double> ratios;
    for (std::size_t run = 0; run < kRuns; ++run) ratios.push_back(times[run] / ordinary[run]);
    reportSamples("flash", name + " / ordinary" + suffix, ratios);
  }
  reportSamples("flash", "written for a hit" + suffix, columnOf(rows[0], 0), "bytes");
  reportSamples("flash", "the file" + suffix, columnOf(rows[0], 2), "bytes");
  reportSamples("flash",
                "written for a removal, a queue of " + std::to_string(depth) + " being drained",
                columnOf(rows[0], 3), "bytes");
}

void measure(const std::string& directory) {
  std::printf("a hit that comes and goes: what it writes, and how long both saves take\n");
  for (const std::size_t depth : kDepths) measureDepth(directory, depth);
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
