// The load that a fleet of clients brings to both servers, second by second.
#include "bench/fleet/Fleet.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Report.h"
#include "bench/fleet/Scenario.h"

namespace orbiq::bench {
namespace {

struct Options {
  std::vector<std::uint32_t> fleets{1, 1000, 1'000'000};
  std::string scenario = "all";
  std::string output = "build/bench/fleet";
  std::string ignored;
  std::uint64_t seed = 1;
  std::uint32_t seconds = 3600;
  std::uint32_t eventAt = 600;
  std::uint32_t outage = 600;
  std::uint32_t loss = 1800;
  std::uint32_t restarts = 60;
  Behaviour behaviour;
  ServerSettings servers;
};

/// Requests per client and second while nothing happens.
struct Steady {
  double authorizations;
  double hits;
};

void describeFleet(CLI::App& app, Options& options) {
  app.add_option("--clients", options.fleets, "Sizes of the fleets")
      ->delimiter(',')
      ->check(CLI::Range(1, 10'000'000))
      ->capture_default_str();
  app.add_option("--scenario", options.scenario, "The only one to simulate")
      ->check(CLI::IsMember({"all", "steady", "outage", "lossy", "restarts", "restarts-in-outage"}))
      ->capture_default_str();
  app.add_option("--output", options.output, "Directory for the series")->capture_default_str();
  app.add_option("--seed", options.seed, "Of all randomness")->capture_default_str();
  app.add_option("directory", options.ignored, "Taken and not used: nothing is saved there")
      ->group("");
}

void describeEvents(CLI::App& app, Options& options) {
  const auto seconds = [&](const char* name, std::uint32_t& value, const char* text) {
    app.add_option(name, value, text)->check(CLI::Range(1, 1'000'000))->capture_default_str();
  };
  seconds("--seconds", options.seconds, "Length of a simulation");
  seconds("--event-at", options.eventAt, "Second at which the scenario's event begins");
  seconds("--outage", options.outage, "Seconds for which both servers fail");
  seconds("--loss", options.loss, "Seconds for which exchanges are lost");
  seconds("--restarts", options.restarts, "Seconds within which all clients restart");
  app.add_option("--lost-share", options.servers.lostShare, "Of the exchanges, while some are lost")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  static const std::map<std::string, Failure> failures{
      {"silent", Failure::Silent}, {"refused", Failure::Refused}, {"status", Failure::Status}};
  app.add_option("--failure", options.servers.failure,
                 "What a client meets at a server that fails: silent, refused or status (503)")
      ->transform(CLI::CheckedTransformer(failures));
  app.add_option("--answer-takes", options.servers.answerTakes, "Seconds")
      ->check(CLI::Range(0.001, 10.0))
      ->capture_default_str();
  app.add_option("--authorization-capacity", options.servers.authorizationCapacity,
                 "Exchanges that the server answers a second, the others fail; 0: all");
  app.add_option("--hit-capacity", options.servers.hitCapacity, "The same for hits");
}

void describeBehaviour(CLI::App& app, Behaviour& behaviour) {
  const auto seconds = [&](const char* name, double& value, const char* text) {
    app.add_option(name, value, text)->check(CLI::NonNegativeNumber)->capture_default_str();
  };
  app.add_option("--between-hits", behaviour.betweenHits, "Mean seconds")
      ->check(CLI::Range(0.1, 1e6))
      ->capture_default_str();
  seconds("--between-foregrounds", behaviour.betweenForegrounds, "Mean seconds; 0: never");
  seconds("--between-network-breaks", behaviour.betweenNetworkBreaks, "Mean seconds; 0: never");
  seconds("--network-break", behaviour.networkBreak, "Seconds without a network");
  seconds("--between-restarts", behaviour.betweenRestarts, "Mean seconds; 0: never");
  seconds("--first-hit-within", behaviour.firstHitWithin, "Seconds after a restart");
  const auto share = [&](const char* name, double& value, const char* text) {
    app.add_option(name, value, text)->check(CLI::Range(0.0, 1.0))->capture_default_str();
  };
  share("--streaming-share", behaviour.streamingShare, "Streaming requests among all");
  share("--renewing-share", behaviour.renewingShare, "Of those, the ones that renew the session");
}

/// The one that all others are compared with comes first.
std::vector<Scenario> scenariosOf(const Options& options) {
  const auto window = [&](std::uint32_t length) {
    return Window{options.eventAt, options.eventAt + length};
  };
  return {
      {.name = "steady"},
      {.name = "outage", .outage = window(options.outage)},
      {.name = "lossy", .loss = window(options.loss)},
      {.name = "restarts", .restarts = window(options.restarts)},
      {.name = "restarts-in-outage",
       .outage = window(options.outage),
       .restarts = window(options.restarts)},
  };
}

void writeSeries(const std::string& path, const Scenario& scenario,
                 const ScenarioServers& servers) {
  std::ofstream file(path);
  file << "second,authorizations,authorizations_answered,hits,hits_answered,outage,loss,restarts\n";
  const Load& authorizations = servers.authorizations();
  const Load& hits = servers.hits();
  for (std::uint32_t second = 0; second < hits.asked.size(); ++second) {
    const Moment now = second * kSecond;
    file << second << ',' << authorizations.asked[second] << ',' << authorizations.answered[second]
         << ',' << hits.asked[second] << ',' << hits.answered[second] << ','
         << scenario.outage.holds(now) << ',' << scenario.loss.holds(now) << ','
         << scenario.restarts.holds(now) << '\n';
  }
  file.flush();
  if (!file) throw std::runtime_error("cannot write " + path);
}

void printFates(const Fleet& fleet) {
  const Accounts& accounts = fleet.accounts();
  const auto share = [&](const char* name, std::uint64_t hits) {
    if (hits == 0) return;
    std::printf("    %-28s %12llu %7.3f %%\n", name, static_cast<unsigned long long>(hits),
                100.0 * static_cast<double>(hits) / static_cast<double>(accounts.accepted));
  };
  share("hits accepted", accounts.accepted);
  share("sent", accounts.of(HitFate::Sent));
  share("answered, not with 200", accounts.of(HitFate::AnsweredWithAnotherStatus));
  share("given up", accounts.of(HitFate::GivenUp));
  share("pushed out", accounts.of(HitFate::PushedOut));
  share("discarded at start", accounts.of(HitFate::DiscardedAtStart));
  share("discarded at network return", accounts.of(HitFate::DiscardedAtNetworkReturn));
  share("lost with a process", accounts.lostAtEnd);
  share("pending", fleet.pending());
  std::printf("    %-28s %12llu\n", "clients silenced",
              static_cast<unsigned long long>(fleet.silenced()));
}

void printLoad(const std::string& label, const char* server, const Load& load,
               std::uint32_t clients, double steadyPerClient) {
  const double steady = steadyPerClient * clients;
  const double peak = load.peak();
  const auto at = std::max_element(load.asked.begin(), load.asked.end()) - load.asked.begin();
  std::printf("    %-16s %12.3f %10.0f %8lld\n", server, steady, peak, static_cast<long long>(at));
  if (steady <= 0) return;
  const double ratio = peak / steady;
  report({"fleet", label + " / " + server + ", peak to mean", ratio, "", {}, ratio, ratio});
}

/// The same options print the same.
Steady simulate(const Scenario& scenario, std::uint32_t clients, const Options& options,
                const Steady* steady) {
  ScenarioServers servers(scenario, options.servers, options.seconds);
  Fleet fleet(clients, options.behaviour, scenario, servers, options.seconds, options.seed);
  fleet.run();
  if (fleet.accounts().accepted != fleet.accounts().settled() + fleet.pending()) {
    throw std::logic_error("the accounts of the hits do not add up");
  }
  const double count = clients;
  const Steady found{servers.authorizations().mean() / count, servers.hits().mean() / count};
  writeSeries(options.output + "/" + scenario.name + "-" + std::to_string(clients) + ".csv",
              scenario, servers);
  const std::string label =
      scenario.name + ", " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
  std::printf("  %-18s %12s %10s %8s\n", label.c_str(), "steady/s", "peak/s", "at s");
  const Steady& reference = steady != nullptr ? *steady : found;
  printLoad(label, "authorizations", servers.authorizations(), clients, reference.authorizations);
  printLoad(label, "hits", servers.hits(), clients, reference.hits);
  if (clients == *std::max_element(options.fleets.begin(), options.fleets.end())) printFates(fleet);
  std::fflush(stdout);
  return found;
}

void simulateAll(const Options& options) {
  std::filesystem::create_directories(options.output);
  std::vector<std::uint32_t> fleets = options.fleets;
  std::sort(fleets.rbegin(), fleets.rend());
  const std::vector<Scenario> scenarios = scenariosOf(options);
  std::printf("fleets for %u s, seed %llu; steady: the mean of the largest fleet, per client\n",
              options.seconds, static_cast<unsigned long long>(options.seed));
  const Steady steady = simulate(scenarios.front(), fleets.front(), options, nullptr);
  for (const Scenario& scenario : scenarios) {
    if (options.scenario != "all" && options.scenario != scenario.name) continue;
    for (const std::uint32_t clients : fleets) {
      if (&scenario == scenarios.data() && clients == fleets.front()) continue;
      simulate(scenario, clients, options, &steady);
    }
  }
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("The load that a fleet of clients brings to both servers", "orbiq_bench_fleet");
  describeFleet(app, options);
  describeEvents(app, options);
  describeBehaviour(app, options.behaviour);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  simulateAll(options);
  return 0;
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) try {
  return orbiq::bench::run(argc, argv);
} catch (const std::exception& error) {
  std::cerr << "cannot simulate: " << error.what() << "\n";
  return 1;
}
