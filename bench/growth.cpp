// What costs grow with: the queue, the file, the taggers.
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
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
/// So few that what grows stays about the same.
constexpr std::size_t kMore = 15;
constexpr std::size_t kCalls = 300;
constexpr std::size_t kLoads = 25;
constexpr std::size_t kMostTaggers = 1'000;
constexpr char kSerial[] = "241041208600";

/// Prints the microseconds of `sendHit` while so many requests wait.
int queued(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const StalledApplication application(arguments.at(1) + "/queued" + arguments.at(2), depth);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  std::vector<double> calls;
  for (std::size_t call = 0; call < kCalls; ++call) {
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
  }
  if (orbiqAgent::sharedAgent().statistics().pending != depth + kCalls) return 1;
  std::printf("%f\n", median(calls));
  return 0;
}
const test::RoleRegistration kQueued("queued", queued);

/// Prints the microseconds of `sendHit` while so many taggers are there, and of obtaining another
/// one.
int tagged(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const StalledApplication application(arguments.at(1) + "/tagged" + arguments.at(2), 1);
  std::vector<std::shared_ptr<orbiqAudienceTagger>> taggers;
  taggers.reserve(count + kMore);
  const auto obtain = [&] {
    taggers.push_back(orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(
        std::to_string(100'000'000'000 + taggers.size() * 7'919)));
  };
  while (taggers.size() < count) obtain();
  // Whatever their number, the same calls have been made before.
  for (std::size_t call = 0; call < kMostTaggers; ++call) taggers[call % count]->sendHit();
  std::vector<double> obtained, calls;
  for (std::size_t call = 0; call < kCalls; ++call) {
    const auto& tagger = taggers[call % count];
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
  }
  for (std::size_t more = 0; more < kMore; ++more) obtained.push_back(microseconds(obtain));
  std::printf("%f %f\n", median(calls), median(obtained));
  return 0;
}
const test::RoleRegistration kTagged("tagged", tagged);

/// Prints the microseconds that a file of so many requests takes to load: those of the
/// fastest load, as one lasts so long that another process often comes between.
int loaded(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const std::string path = arguments.at(1) + "/loaded" + arguments.at(2) + ".ser";
  RequestQueue queue;
  for (Requests requests; queue.size() < count;) queue.push_back(requests.next());
  RequestsFile(path).save(queue);
  std::vector<double> times;
  for (std::size_t run = 0; run < kLoads; ++run) {
    queue.clear();
    RequestsFile file(path);
    times.push_back(microseconds([&] { queue = file.load(); }));
    if (queue.size() != count) throw std::runtime_error("not all requests were loaded");
  }
  std::printf("%f\n", quantile(times, 0));
  return 0;
}
const test::RoleRegistration kLoaded("loaded", loaded);

// --- who asks for it

using Rows = std::vector<std::vector<double>>;

void reportMicroseconds(const std::string& name, const std::vector<double>& samples) {
  reportSamples("growth", name, samples, "µs");
}

void reportRatio(const std::string& name, const Rows& large, const Rows& small, std::size_t index,
                 double divisor, const Aim& aim) {
  std::vector<double> ratios;
  for (std::size_t run = 0; run < large.size(); ++run) {
    ratios.push_back(large[run].at(index) / small[run].at(index) / divisor);
  }
  reportSamples("growth", name, ratios, "", aim);
}

/// The sizes take turns, since the machine is not equally fast all the time.
std::vector<Rows> rowsOfSizes(const char* role, const std::vector<std::size_t>& sizes,
                              std::size_t columns, const std::string& directory) {
  std::vector<Rows> rows(sizes.size());
  for (std::size_t run = 0; run < kRuns; ++run) {
    const std::string place = directory + "/" + std::to_string(run);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      rows[i].push_back(rowsOfRuns(role, 1, columns, {place, std::to_string(sizes[i])}).front());
    }
  }
  return rows;
}

// What does not grow.
constexpr Aim kConstant{Aim::Kind::kAtMost, 1.25};

void measureQueue(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 499};
  const std::vector<Rows> rows = rowsOfSizes("queued", sizes, 1, directory);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    reportMicroseconds("sendHit, " + std::to_string(sizes[i]) + " requests wait",
                       columnOf(rows[i], 0));
  }
  reportRatio("sendHit, 499 requests wait / 1", rows[3], rows[0], 0, 1, kConstant);
}

void measureTaggers(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, kMostTaggers};
  const std::vector<Rows> rows = rowsOfSizes("tagged", sizes, 2, directory);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const std::string suffix = ", " + std::to_string(sizes[i]) + " taggers";
    reportMicroseconds("sendHit" + suffix, columnOf(rows[i], 0));
    reportMicroseconds("obtaining another tagger" + suffix, columnOf(rows[i], 1));
  }
  reportRatio("sendHit, 1000 taggers / 1", rows[2], rows[0], 0, 1, kConstant);
  reportRatio("obtaining another tagger, 1000 taggers / 1", rows[2], rows[0], 1, 1,
              {Aim::Kind::kAtMost, 2});
}

void measureFile(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 500};
  const std::vector<Rows> rows = rowsOfSizes("loaded", sizes, 1, directory);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    reportMicroseconds("loading " + std::to_string(sizes[i]) + " requests", columnOf(rows[i], 0));
  }
  reportRatio("loading, per request, 500 / 100", rows[3], rows[2], 0, 5, {Aim::Kind::kBelow, 1.25});
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
