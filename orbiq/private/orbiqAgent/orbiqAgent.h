#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "orbiq/private/orbiqAgent/Statistics.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"

class orbiqAudienceTagger;

/// The owner of the request queue: it saves it, authorizes and sends its requests in order, and
/// keeps one audience tagger per serial. One per process, made on first use, never destroyed.
class ORBIQ_EXPORT orbiqAgent {
 public:
  /// The one agent. Its first call loads the requests file and starts the sending loop. Any thread.
  /// Where it cannot be made, for want of memory for example, the next call tries again; until then
  /// it counts what it is given as given up.
  static orbiqAgent& sharedAgent();

  orbiqAgent(const orbiqAgent&) = delete;
  orbiqAgent& operator=(const orbiqAgent&) = delete;

  /// Queues a request and returns at once; null is ignored. The request belongs to the agent from
  /// then on. Of more than 500 the oldest is dropped, and so is the oldest of more than 10,000 that
  /// wait while a send is under way. Any thread.
  void addRequestToQueue(std::shared_ptr<orbiqRequest> request);

  /// 0, 1, 2 ... in call order, anew in every process. Any thread.
  std::int64_t getPartialID();

  /// What became of every hit. Any thread; never waits for a send.
  orbiq::Statistics statistics() const;
  /// Waits until every hit that was accepted before the call is settled, that is, no longer
  /// pending: true then, false when `timeout` is over first. It sends nothing earlier: a hit that
  /// waits for its next attempt or for the network goes on waiting. A negative timeout counts as 0,
  /// one of more than a year as a year. Any thread, several at once. Never waits, and returns
  /// false, in a log sink, on the library's own threads and in a forked child; on an adopted main
  /// loop it blocks the loop. Once the process's exit has reached the library, it checks without
  /// waiting.
  bool flush(std::chrono::milliseconds timeout);
  /// Counts a hit that its cached access refused before it was queued. Any thread.
  void countRefusedHit(const orbiq::String& serial, const std::shared_ptr<orbiqAccess>& access);
  /// Counts a hit that could not be composed, for want of memory. Any thread.
  void countLostHit();

  /// The file that holds the queue; its directory is made if it is missing. Any thread.
  orbiq::String requestsFilePath() const;

  /// Registers a tagger under its serial; the first one of a serial stays, null is ignored. One
  /// thread at a time.
  void addorbiqAudienceTagger(std::shared_ptr<orbiqAudienceTagger> tagger);
  /// The registered tagger of that serial, or null. One thread at a time.
  std::shared_ptr<orbiqAudienceTagger> orbiqAudienceTaggerWithSerial(
      const orbiq::String& serial) const;

  /// The application's version; may be null. Any thread, as the five that follow.
  static orbiq::String orbiqVersion();
  /// The User-Agent of every exchange.
  static orbiq::String userAgent();
  /// The advertising identifier; null where there is none.
  static orbiq::String appleDID();
  /// "v", the application's version, and "n", a fresh random number. For callers: audience hits
  /// have their own.
  orbiq::Parameters defaultParametersForRequest() const;
  /// The diagonal of the main screen in inches; 0 where no screen was described.
  orbiq::GraphicsFloat screenDiagonal() const;
  /// The authorization server's clock minus the device's, in seconds; 0 before the first exchange,
  /// and after one whose answer had no date that could be read.
  double timeIntervalBetweenServerAndDevice() const;

  /// False for a request that was created more than five seconds after the device's present time,
  /// on a day that is later by the authorization server's clock; true for one without a creation
  /// date.
  bool isTheRequestValid(const orbiqRequest& request) const;

  /// Called by the notification centre when the network has changed. If it can be reached, audience
  /// requests that wait are dropped, and the head is looked at. Any thread; returns at once.
  void reachabilityStatusChanged(const orbiq::Notification& notification);
  /// Called by the notification centre: the head is looked at. Any thread; returns at once.
  void applicationWillEnterForeground(const orbiq::Notification& notification);

  /// True in a process that was forked, without exec, from one with an agent: its calls do nothing.
  /// The first one says so in the log.
  static bool isForkedAway();

 private:
  struct ORBIQ_HIDDEN State;
  constexpr orbiqAgent() = default;
  ~orbiqAgent() = default;
};
