#include <orbiq/orbiq.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>

namespace {

/// Writes what became of every hit in Prometheus's text format.
void writeMetrics(std::ostream& out, const orbiq::Statistics& statistics) {
  out << "# HELP orbiq_hits_total Hits that are settled, by what became of them.\n"
         "# TYPE orbiq_hits_total counter\n";
  const struct {
    const char* outcome;
    std::uint64_t count;
  } outcomes[] = {
      {"sent", statistics.sent},
      {"refused", statistics.refused},
      {"answered_with_another_status", statistics.answeredWithAnotherStatus},
      {"given_up", statistics.givenUp},
      {"pushed_out", statistics.pushedOut},
      {"discarded_at_start", statistics.discardedAtStart},
      {"discarded_at_network_return", statistics.discardedAtNetworkReturn},
  };
  for (const auto& [outcome, count] : outcomes) {
    out << "orbiq_hits_total{outcome=\"" << outcome << "\"} " << count << "\n";
  }
  out << "# HELP orbiq_hits_accepted_total Hits that the library was given.\n"
         "# TYPE orbiq_hits_accepted_total counter\n"
         "orbiq_hits_accepted_total "
      << statistics.accepted
      << "\n"
         "# HELP orbiq_hits_pending Hits that are not settled yet.\n"
         "# TYPE orbiq_hits_pending gauge\n"
         "orbiq_hits_pending "
      << statistics.pending << "\n";
  if (statistics.lastSuccess) {
    out << "# HELP orbiq_last_success_timestamp_seconds When a hit was last answered with 200.\n"
           "# TYPE orbiq_last_success_timestamp_seconds gauge\n"
           "orbiq_last_success_timestamp_seconds "
        << std::fixed << std::setprecision(3) << statistics.lastSuccess->secondsSince1970() << "\n";
  }
}

/// Whoever reads the file meanwhile finds the old or the new one, never half of one.
bool replaceFile(const std::string& path, const orbiq::Statistics& statistics) {
  const std::string fresh = path + ".new";
  std::ofstream file(fresh);
  writeMetrics(file, statistics);
  file.close();
  return file && std::rename(fresh.c_str(), path.c_str()) == 0;
}

}  // namespace

/// Sends one hit and exports the statistics: to standard output, or into a file in the directory
/// that the node exporter's textfile collector reads.
///
///     ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ orbiq-prometheus [FILE.prom]
int main(int count, char** arguments) {
  orbiq::HostApplication::describe({.bundleIdentifier = "tv.example.exporter"});
  orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("ABC")->sendHit();

  // An application exports them whenever it is asked, or every few seconds.
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.flush(std::chrono::seconds(10));
  if (count > 1) return replaceFile(arguments[1], agent.statistics()) ? 0 : 1;
  writeMetrics(std::cout, agent.statistics());
  return std::cout.flush() ? 0 : 1;
}
