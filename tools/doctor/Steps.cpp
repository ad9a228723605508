#include "tools/doctor/Steps.h"

#include <string>

namespace orbiq::doctor {
namespace {

using Kind = Step::Kind;

constexpr Step kDescription{"description", "Description and environment", 3, Kind::kLocal,
                            examineDescription};
constexpr Step kDirectory{"directory", "Library directory", 4, Kind::kLocal, examineDirectory};
constexpr Step kFile{"requests-file", "Requests file", 5, Kind::kLocal, examineRequestsFile};
constexpr Step kNetwork{"network", "Network", 6, Kind::kLocal, examineNetwork};
constexpr Step kName{"name", "Name of the server", 7, Kind::kGate, examineName};
constexpr Step kConnection{"connection", "Connection", 8, Kind::kGate, examineConnection};
constexpr Step kTls{"tls", "TLS", 9, Kind::kGate, examineTls};
constexpr Step kExchange{"exchange", "Exchange", 10, Kind::kGate, examineExchange};
constexpr Step kClock{"clock", "Clock", 11, Kind::kBeside, examineClock};
constexpr Step kAccess{"access", "Access", 12, Kind::kGate, examineAccess};
constexpr Step kUrl{"url", "URL of the hit", 13, Kind::kGate, examineHitUrl};
constexpr Step kHit{"hit", "Hit", 14, Kind::kGate, sendHit};
constexpr Step kKeepAlive{"keep-alive", "Kept connection", 15, Kind::kBeside, examineKeepAlive};

constexpr Step kRoad[] = {kDescription, kDirectory, kFile,  kNetwork, kName, kConnection,
                          kTls,         kExchange,  kClock, kAccess,  kUrl,  kHit};
constexpr Step kServer[] = {kDescription, kName,      kConnection, kTls, kExchange,
                            kClock,       kKeepAlive, kAccess,     kUrl};

}  // namespace

std::span<const Step> roadSteps() { return kRoad; }

std::span<const Step> serverSteps() { return kServer; }

std::vector<Walked> walk(std::span<const Step> steps, Context& context,
                         const std::function<void(const Walked&)>& tell) {
  std::vector<Walked> walked;
  for (const Step& step : steps) {
    Finding finding;
    if (step.kind != Kind::kLocal && !context.obstacle.empty()) {
      finding.skip("Not tried: " + context.obstacle);
    } else {
      finding = step.run(context);
      if (step.kind == Kind::kGate && finding.level() == Level::kFailure) {
        context.obstacle = std::string("the step \"") + step.title + "\" failed.";
      }
    }
    walked.push_back({&step, std::move(finding)});
    tell(walked.back());
  }
  return walked;
}

}  // namespace orbiq::doctor
