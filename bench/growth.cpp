// What costs grow with: the queue, the file, the taggers.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "tests/support/Role.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kAdditions = 15;
constexpr std::size_t kCalls = 300;
constexpr char kSerial[] = "241041208600";
/// Nobody listens there.
constexpr char kNoServer[] = "http://127.0.0.1:9/";

std::string placeOf(const std::vector<std::string>& arguments, const char* what) {
  return arguments.at(1) + "/" + what + arguments.at(2) + "-" + arguments.at(0);
}

void awaitPending(std::size_t count) {
  while (orbiqAgent::sharedAgent().statistics().pending != count) std::this_thread::yield();
}

/// Nanoseconds that the threads of the library have run.
std::uint64_t libraryTime() {
  std::uint64_t sum = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(getpid())) continue;
    std::uint64_t time = 0;
    std::ifstream(task.path() / "schedstat") >> time;
    sum += time;
  }
  return sum;
}

std::uint64_t ownTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(time.tv_nsec);
}

/// Prints the microseconds of `sendHit` while so many requests wait, the processor's microseconds
/// that the library takes for an addition to them, and those of the saving that is a part of it.
int queued(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const std::string directory = placeOf(arguments, "queued");
  describeApplication(kNoServer, directory);
  setReachable(false);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  SaveCounter saves(directory);
  for (std::size_t hit = 0; hit < depth; ++hit) tagger->sendHit();
  saves.waitFor(depth);
  const std::string path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
  std::filesystem::copy_file(path, path + ".copy");

  std::vector<double> calls;
  const std::uint64_t before = libraryTime();
  for (std::size_t addition = 1; addition <= kAdditions; ++addition) {
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
    awaitPending(depth + addition);
    saves.waitFor(depth + addition);
  }
  const std::uint64_t taken = libraryTime() - before;

  RequestsFile file;
  RequestQueue queue = file.load(path + ".copy");
  if (queue.size() != depth) throw std::runtime_error("the copied queue is not whole");
  file.save(path + ".copy", queue);
  std::uint64_t saving = 0;
  for (std::size_t addition = 0; addition < kAdditions; ++addition) {
    queue.push_back(queue.back()->copy());
    const std::uint64_t start = ownTime();
    file.save(path + ".copy", queue);
    saving += ownTime() - start;
  }
  std::printf("%f %f %f\n", median(calls), static_cast<double>(taken) / 1000 / kAdditions,
              static_cast<double>(saving) / 1000 / kAdditions);
  return 0;
}
const test::RoleRegistration kQueued("queued", queued);

/// Prints the microseconds of `sendHit` while so many taggers are there, and of obtaining another
/// one.
int tagged(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  describeApplication(kNoServer, placeOf(arguments, "tagged"));
  setReachable(false);
  std::vector<std::shared_ptr<orbiqAudienceTagger>> taggers;
  const auto obtain = [&](std::size_t number) {
    taggers.push_back(orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(
        std::to_string(100'000'000'000 + number * 7'919)));
  };
  while (taggers.size() < count) obtain(taggers.size());
  for (const auto& tagger : taggers) tagger->sendHit();
  std::vector<double> obtained, calls;
  for (std::size_t call = 0; call < kCalls; ++call) {
    const auto& tagger = taggers[call % taggers.size()];
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
  }
  // So few that the number stays about the same.
  for (std::size_t more = 0; more < std::min<std::size_t>(count, 15); ++more) {
    obtained.push_back(microseconds([&] { obtain(count + more); }));
  }
  std::printf("%f %f\n", median(calls), median(obtained));
  return 0;
}
const test::RoleRegistration kTagged("tagged", tagged);

/// Prints the microseconds that a file of so many requests takes to load.
int loaded(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const std::string path = placeOf(arguments, "loaded") + ".ser";
  RequestQueue queue;
  for (Requests requests; queue.size() < count;) queue.push_back(requests.next());
  RequestsFile().save(path, queue);
  std::vector<double> times;
  for (std::size_t run = 0; run < 25; ++run) {
    times.push_back(microseconds([&] { queue = RequestsFile().load(path); }));
    if (queue.size() != count) throw std::runtime_error("not all requests were loaded");
  }
  std::printf("%f\n", median(times));
  return 0;
}
const test::RoleRegistration kLoaded("loaded", loaded);

// --- who asks for it

using Rows = std::vector<std::vector<double>>;

std::vector<double> column(const Rows& rows, std::size_t index) {
  std::vector<double> values;
  for (const std::vector<double>& row : rows) values.push_back(row.at(index));
  return values;
}

void reportMicroseconds(const std::string& name, const std::vector<double>& samples,
                        std::optional<Aim> aim = std::nullopt) {
  report({"growth", name, median(samples), "µs", aim, quantile(samples, 0.25),
          quantile(samples, 0.75)});
}

void reportRatio(const std::string& name, const Rows& large, const Rows& small, std::size_t index,
                 double divisor, const Aim& aim) {
  std::vector<double> ratios;
  for (std::size_t run = 0; run < large.size(); ++run) {
    ratios.push_back(large[run].at(index) / small[run].at(index) / divisor);
  }
  std::printf("  %s: %s\n", name.c_str(), ratioText(ratios, aim).c_str());
  reportRatios("growth", name, ratios, aim);
}

std::vector<Rows> rowsOfSizes(const char* role, const std::vector<std::size_t>& sizes,
                              std::size_t columns, const std::string& directory) {
  std::vector<Rows> rows;
  for (const std::size_t size : sizes) {
    rows.push_back(rowsOfRuns(role, kRuns, columns, {directory, std::to_string(size)}));
  }
  return rows;
}

void measureQueue(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 480};
  const std::vector<Rows> rows = rowsOfSizes("queued", sizes, 3, directory);
  std::printf("an addition to a queue, in us; medians of %zu processes\n", kRuns);
  std::printf("  %8s %10s %18s %18s %18s\n", "requests", "sendHit", "library's threads",
              "of it, saving", "what remains");
  std::vector<std::vector<double>> remains;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    remains.emplace_back();
    for (const auto& row : rows[i]) remains.back().push_back(row[1] - row[2]);
    std::printf("  %8zu %10.2f %18.1f %18.1f %18.1f\n", sizes[i], median(column(rows[i], 0)),
                median(column(rows[i], 1)), median(column(rows[i], 2)), median(remains.back()));
    const std::string suffix = ", " + std::to_string(sizes[i]) + " requests wait";
    reportMicroseconds("an addition, but for saving" + suffix, remains.back());
  }
  reportRatio("sendHit at rest, 480 requests wait / 1", rows[3], rows[0], 0, 1,
              {Aim::Kind::kAtMost, 1.25});
  std::vector<double> ratios;
  for (std::size_t run = 0; run < kRuns; ++run) ratios.push_back(remains[3][run] / remains[1][run]);
  const Aim constant{Aim::Kind::kAtMost, 1.25};
  const char* const name = "an addition, but for saving, 480 requests wait / 10";
  std::printf("  %s: %s\n", name, ratioText(ratios, constant).c_str());
  reportRatios("growth", name, ratios, constant);
}

void measureTaggers(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 1'000};
  const std::vector<Rows> rows = rowsOfSizes("tagged", sizes, 2, directory);
  std::printf("taggers, in us; medians of %zu processes\n  %8s %10s %18s\n", kRuns, "taggers",
              "sendHit", "obtaining another");
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::printf("  %8zu %10.2f %18.2f\n", sizes[i], median(column(rows[i], 0)),
                median(column(rows[i], 1)));
    const std::string suffix = ", " + std::to_string(sizes[i]) + " taggers";
    reportMicroseconds("sendHit" + suffix, column(rows[i], 0));
    reportMicroseconds("obtaining another tagger" + suffix, column(rows[i], 1));
  }
  // A hundred would be linear. Not one, since a thousand taggers do not fit into a near cache.
  const Aim nearlyConstant{Aim::Kind::kAtMost, 3};
  reportRatio("sendHit, 1000 taggers / 10", rows[2], rows[1], 0, 1, nearlyConstant);
  reportRatio("obtaining another tagger, 1000 taggers / 10", rows[2], rows[1], 1, 1,
              nearlyConstant);
}

void measureFile(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 500};
  const std::vector<Rows> rows = rowsOfSizes("loaded", sizes, 1, directory);
  std::printf("loading a file, in us; medians of %zu processes\n", kRuns);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::printf("  %8zu %10.1f\n", sizes[i], median(column(rows[i], 0)));
    reportMicroseconds("loading " + std::to_string(sizes[i]) + " requests", column(rows[i], 0));
  }
  reportRatio("loading, per request, 500 / 100", rows[3], rows[2], 0, 5,
              {Aim::Kind::kAtMost, 1.25});
}

void measure(const std::string& directory) {
  measureQueue(directory);
  measureTaggers(directory);
  measureFile(directory);
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
