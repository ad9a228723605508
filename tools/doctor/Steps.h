#pragma once

#include <functional>
#include <span>
#include <vector>

#include "tools/doctor/Context.h"
#include "tools/doctor/Finding.h"

/// The steps of a hit's road, each in a file of its own.
namespace orbiq::doctor {

Finding examineDescription(Context& context);
Finding examineDirectory(Context& context);
Finding examineRequestsFile(Context& context);
Finding examineNetwork(Context& context);
Finding examineName(Context& context);
Finding examineConnection(Context& context);
Finding examineTls(Context& context);
Finding examineExchange(Context& context);
Finding examineClock(Context& context);
Finding examineKeepAlive(Context& context);
Finding examineAccess(Context& context);
Finding examineHitUrl(Context& context);
Finding sendHit(Context& context);

struct Step {
  enum class Kind {
    kLocal,   ///< needs no server
    kGate,    ///< needs the server; when it fails, nothing behind it is tried
    kBeside,  ///< needs the server; what is behind it does not depend on it
  };

  const char* name;   ///< for programs
  const char* title;  ///< for people
  int exitStatus;     ///< of the doctor, if this is the first step that fails
  Kind kind;
  Finding (*run)(Context& context);
};

struct Walked {
  const Step* step;
  Finding finding;
};

/// The road of a hit from this machine.
std::span<const Step> roadSteps();
/// What a client meets at an authorization server.
std::span<const Step> serverSteps();
/// Runs the steps in order, and tells of each as soon as it is done.
std::vector<Walked> walk(std::span<const Step> steps, Context& context,
                         const std::function<void(const Walked&)>& tell);

}  // namespace orbiq::doctor
