// How long `sendHit` keeps its caller while the server stalls.
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Surroundings.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {
namespace {

namespace steps = test::steps;

constexpr std::size_t kRuns = 15;
constexpr std::size_t kCalls = 500;

/// The least that a call has to do that hands seven parameters over to another thread.
class Baseline {
 public:
  void handOver() {
    std::map<std::string, std::string> copy = _parameters;
    const std::lock_guard lock(_mutex);
    _queue.push_back(std::move(copy));
  }

 private:
  const std::map<std::string, std::string> _parameters{
      {"serial", "241041208600"},
      {"tn", "on-ios"},
      {"v", "1.0"},
      {"n", "048302911"},
      {"cmsRK", "7"},
      {"cmsPS", "12"},
      {"did", "6D92078A-8246-4BA4-AE5B-76104861E7DC"}};
  std::mutex _mutex;
  std::deque<std::map<std::string, std::string>> _queue;
};

/// Prints p50, p99 and max of `sendHit`, then of the baseline.
int stalledRun(const std::vector<std::string>& arguments) {
  const std::string directory = arguments.at(1) + "/caller" + arguments.at(0);
  // Takes the authorization request and answers nothing.
  test::ScriptedServer server(
      std::vector<test::Script>{{steps::readRequest(), steps::untilPeerCloses()}});
  describeApplication(server.url("/auth/"), directory);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("241041208600");
  tagger->sendHit();
  if (!server.waitForRequests(1)) return 1;

  Baseline baseline;
  baseline.handOver();
  std::vector<double> hits;
  std::vector<double> handOvers;
  for (std::size_t call = 0; call < kCalls; ++call) {
    hits.push_back(microseconds([&] { tagger->sendHit(); }));
    handOvers.push_back(microseconds([&] { baseline.handOver(); }));
  }
  for (const std::vector<double>& side : {hits, handOvers}) {
    std::printf("%f %f %f ", quantile(side, 0.5), quantile(side, 0.99), quantile(side, 1));
  }
  std::printf("\n");
  return 0;
}

const test::RoleRegistration kStalledRun("stalled", stalledRun);

void measure(const std::string& directory) {
  const auto rows = rowsOfRuns("stalled", kRuns, 6, {directory});
  const std::vector<double> row = mediansOf(rows);
  std::printf(
      "sendHit on the caller's thread, %zu calls while the server stalls, in us; medians of "
      "%zu runs\n",
      kCalls, kRuns);
  std::printf("  %-36s %8s %8s %8s\n", "", "p50", "p99", "max");
  std::printf("  %-36s %8.2f %8.2f %8.2f\n", "sendHit", row[0], row[1], row[2]);
  std::printf("  %-36s %8.2f %8.2f %8.2f\n", "copy of a map of 7 and a locked push", row[3], row[4],
              row[5]);
  std::printf("  %-36s %8.2f %8.2f %8.2f\n", "ratio", median(ratiosOf(rows, 0, 3)),
              median(ratiosOf(rows, 1, 4)), median(ratiosOf(rows, 2, 5)));
  std::printf("  p99: %s\n", ratioText(ratiosOf(rows, 1, 4), {Aim::Kind::kBelow, 20}).c_str());
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
