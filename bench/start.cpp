// What the first hit after a start costs more than the next one, and what the creation takes
// before.
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "tests/support/Role.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kSizes[] = {0, 1, 10, 100, 500};
/// No earlier process has run, so that not even the directory is there.
constexpr char kFirstEver[] = "first";
/// Nobody listens there.
constexpr char kNoServer[] = "http://127.0.0.1:9/";

std::string libraryDirectory(const std::vector<std::string>& arguments) {
  return arguments.at(1) + "/start" + arguments.at(2) + "-" + arguments.at(0);
}

/// What an earlier process leaves behind: streaming requests, which are kept. In a process of its
/// own, or the measured one would find much of the library in use already.
int leave(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const std::string directory = libraryDirectory(arguments) + "/orbiqCache";
  std::filesystem::create_directories(directory);
  RequestQueue queue;
  for (Requests requests; queue.size() < count;) {
    auto request = requests.next();
    if (request->requestType() != RequestTypeAudience) queue.push_back(std::move(request));
  }
  RequestsFile(directory + "/requests.ser").save(queue);
  return 0;
}
const test::RoleRegistration kLeave("leave", leave);

/// Prints the microseconds of libcurl's start, of obtaining the first tagger, and of two hits.
int start(const std::vector<std::string>& arguments) {
  const std::size_t count = arguments.at(2) == kFirstEver ? 0 : std::stoul(arguments.at(2));
  describeApplication(kNoServer, libraryDirectory(arguments));
  setReachable(false);
  std::shared_ptr<orbiqAudienceTagger> tagger;
  const double http = microseconds([] { prepareHttpForProcess(); });
  const double creation = microseconds(
      [&] { tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("241041208600"); });
  const double first = microseconds([&] { tagger->sendHit(); });
  const double second = microseconds([&] { tagger->sendHit(); });
  if (orbiqAgent::sharedAgent().statistics().accepted < count + 2) return 1;
  std::printf("%f %f %f %f\n", http, creation, first, second);
  return 0;
}
const test::RoleRegistration kStart("start", start);

void reportTimes(const std::string& name, const std::vector<double>& samples,
                 std::optional<Aim> aim = {}) {
  reportSamples("start", name, samples, "ms", aim);
}

std::vector<double> column(const std::vector<std::vector<double>>& rows, std::size_t index) {
  std::vector<double> milliseconds;
  for (const std::vector<double>& row : rows) milliseconds.push_back(row.at(index) / 1000);
  return milliseconds;
}

void measureStart(const std::string& directory, const std::string& size) {
  const bool isFirstEver = size == kFirstEver;
  if (!isFirstEver) rowsOfRuns("leave", kRuns, 0, {directory, size});
  const auto rows = rowsOfRuns("start", kRuns, 4, {directory, size});
  const std::string suffix =
      isFirstEver ? ", whose directory is made" : ", " + size + " requests in the file";
  reportTimes("obtaining the first tagger" + suffix, column(rows, 1));
  if (size != std::to_string(kSizes[4])) return;
  reportTimes("libcurl's start, on the same thread", column(rows, 0));
  std::vector<double> more;
  for (const auto& row : rows) more.push_back((row[2] - row[3]) / 1000);
  reportTimes("first sendHit - second" + suffix, more, Aim{Aim::Kind::kAtMost, 1});
}

void measure(const std::string& directory) {
  std::printf("the start of a process; medians of %zu\n", kRuns);
  measureStart(directory, kFirstEver);
  for (const std::size_t size : kSizes) measureStart(directory, std::to_string(size));
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
