// Who has the requests file, and what waits in it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <string>

#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"
#include "tools/requests/LiveFile.h"
#include "tools/requests/RequestsArchive.h"

namespace orbiq::doctor {
namespace {

using requests::Request;
using requests::RequestsArchive;
using requests::Snapshot;
using requests::Use;

std::string commandOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/comm");
  std::string name;
  std::getline(file, name);
  return name.empty() ? "" : " (" + name + ")";
}

void examineHolder(const Use& use, Finding& finding) {
  if (use.state == Use::State::kFree) {
    return finding.isFine("No process has the requests file.");
  }
  if (use.state == Use::State::kUnknown) {
    return finding.warn("lock-unreadable",
                        "Whether a process has the requests file cannot be seen.",
                        "Run the doctor as the application's user.");
  }
  const std::string holder = use.process > 0
                                 ? "Process " + std::to_string(use.process) + commandOf(use.process)
                                 : "A process that cannot be seen from here";
  finding.warn("held-by-another-process",
               holder +
                   " has the requests file. Another process of the same application starts "
                   "with an empty queue, and what waits in it is not saved.",
               "If that is your application, this is as it should be. If it is another one, end "
               "it, or give each a bundle identifier or library directory of its own.");
}

struct Waiting {
  std::size_t audience = 0;
  std::size_t streaming = 0;
  std::size_t markers = 0;
  std::size_t refused = 0;  ///< by their access, when their turn comes
};

bool isUsedUp(const Request& request) {
  return request.access && request.access->mode == AccessModeRestricted &&
         request.access->firstHitSent;
}

Waiting countOf(const RequestsArchive& archive) {
  Waiting waiting;
  for (const Request& request : archive.requests()) {
    if (request.kind == Request::Kind::kAudience) ++waiting.audience;
    if (request.kind == Request::Kind::kStreaming) ++waiting.streaming;
    if (request.kind == Request::Kind::kMarker) ++waiting.markers;
    if (isUsedUp(request)) ++waiting.refused;
  }
  return waiting;
}

bool isInUse(const Snapshot& snapshot) { return snapshot.use.state == Use::State::kInUse; }

/// For how long the application has had the same requests; 0 if none has the file.
double secondsAtRest(const Snapshot& snapshot) {
  if (!isInUse(snapshot) || !snapshot.changedAt) return 0;
  return Platform::now().secondsSince1970() - *snapshot.changedAt;
}

/// The file does not tell of a head that failed since: that is saved with the next addition or
/// removal.
void examineHead(const RequestsArchive& archive, double atRest, Finding& finding) {
  // An exchange for the authorization, and the hit behind it.
  constexpr std::chrono::duration<double> kLongestAnswer =
      HttpRequest::kUsualTimeout + SendingRules::kHitTimeout;
  if (archive.requests().empty()) return;
  const Request& head = archive.requests().front();
  if (head.access && head.access->isFallback()) {
    finding.warn("fallback-at-head",
                 "The first request has no address: when it was to be authorized, the server gave "
                 "no usable answer. Everything behind it waits.",
                 "Restart the application once the server answers as it should; the steps below "
                 "tell whether it does.");
  } else if (head.numberOfFails > 0) {
    finding.warn("head-unanswered",
                 "The first request, for " +
                     shownUrl(head.target().value_or("an unknown address")) + ", had no answer " +
                     std::to_string(head.numberOfFails) + " times. Everything behind it waits.",
                 "See what the hit server does with it; the step \"Hit\" tries with --send.");
  } else if (atRest > kLongestAnswer.count()) {
    finding.warn(
        "head-waits",
        "The first request has been the first for at least " + shownDuration(atRest) +
            ", so the application has probably got no answer for it, and everything "
            "behind it waits, even if all steps below are sound by now. (Or it was dropped "
            "when the network came back, which the file does not show.)",
        "In the application's statistics, lastFailure tells the cause. If it begins with "
        "a URL, the request is tried again with the next hit, when the application comes "
        "to the foreground or, if it is a streaming request, when the network comes back. "
        "If it begins with the account's serial, only a restart helps.");
  }
}

void examineQueue(const RequestsArchive& archive, const Snapshot& snapshot, Finding& finding) {
  const Waiting waiting = countOf(archive);
  finding.isFine("What waits: audience hits " + std::to_string(waiting.audience) +
                 ", streaming requests " + std::to_string(waiting.streaming) +
                 ", clear-cache markers " + std::to_string(waiting.markers) + ".");
  if (waiting.audience > 0 && !isInUse(snapshot)) {
    finding.warn("dropped-at-start",
                 "The audience hits among them are dropped when the application starts.",
                 "Let it run until its hits are sent: a process that ends takes them along.");
  }
  if (waiting.refused > 0) {
    finding.warn("restricted-after-its-hit",
                 std::to_string(waiting.refused) +
                     " of them are of a restricted account that has sent its one hit: they are "
                     "refused when their turn comes.",
                 "Ask whoever runs the authorization server for full access.");
  }
  if (archive.requests().size() >= SendingRules::kMostRequests) {
    finding.warn("queue-full", "The queue is full: each further hit pushes out the oldest.",
                 "Find out below why none is sent.");
  }
  examineHead(archive, secondsAtRest(snapshot), finding);
}

void examineArchive(const Snapshot& snapshot, Finding& finding) {
  const RequestsArchive archive(snapshot.bytes);
  if (archive.isLoadable()) return examineQueue(archive, snapshot, finding);
  finding.fail("damaged",
               "The requests file is damaged. The application starts with an empty queue, and "
               "overwrites it.",
               "orbiq-requests shows what can still be read, and what is wrong.");
}

}  // namespace

Finding examineRequestsFile(Context& context) {
  Finding finding;
  if (!context.isPlaceKnown()) {
    finding.skip("Which file is not known.");
    return finding;
  }
  const std::string path = libraryDirectory() + "/orbiqCache/requests.ser";
  const Snapshot snapshot = requests::look(path);
  if (snapshot.failure == ENOTDIR) {
    finding.skip("There is no place for it.");
    return finding;
  }
  examineHolder(snapshot.use, finding);
  if (snapshot.failure == 0) {
    examineArchive(snapshot, finding);
  } else if (snapshot.failure == ENOENT) {
    finding.isFine("There is no requests file yet, so nothing waits.");
  } else {
    finding.fail("file-unreadable",
                 path + " cannot be read: " + causeOf(snapshot.failure) +
                     ". The application starts with an empty queue.",
                 "Give the file to the application's user, or run the doctor as that user.");
  }
  if (access((path + ".unread").c_str(), F_OK) == 0) {
    finding.warn("moved-aside", "An earlier run could not read the file and moved it aside.",
                 "orbiq-requests " + path + ".unread shows what is in it.");
  }
  return finding;
}

}  // namespace orbiq::doctor
