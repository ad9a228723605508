#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "orbiq/private/orbiqAgent/Statistics.h"
#include "orbiq/private/orbiqAgent/orbiqTaggerIdentifier/orbiqTaggerIdentifier.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/orbiqReachability/orbiqReachability.h"
#include "orbiq/services/platform/Export.h"
#include "orbiq/services/platform/HostApplication.h"
#include "orbiq/services/platform/Mutex.h"
#include "orbiq/services/platform/NotificationCenter.h"
#include "orbiq/services/platform/Parameters.h"
#include "orbiq/services/platform/String.h"

class orbiqAudienceTagger;

namespace orbiq {
class HandlerWork;
class HitLedger;
template <class Value>
class NeverDestroyed;
class RequestsFile;
class SerialQueue;
enum class HitFate : std::size_t;
enum class Trigger;
}  // namespace orbiq

/// The owner of the request queue: it saves it, authorizes and sends its requests in order, and
/// keeps one audience tagger per serial. One per process, made on first use, never destroyed.
///
/// Locks: the factory's lock of `orbiqAudienceTagger` is held alone or around the registry, which
/// takes none; `startLock` is the outermost. `requestsProtector` may be held while the
/// authorization cache's lock, the ledger's lock or one of the platform's is taken, never the other
/// way round; `partialIDLocker` is held alone.
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
  /// Counts a hit that its cached access refused before it was queued. Any thread.
  void countRefusedHit();
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
  /// The parameters that every hit starts from, with a fresh random number.
  orbiq::Parameters defaultParametersForRequest() const;
  /// The diagonal of the main screen in inches; 0 where no screen was described.
  orbiq::GraphicsFloat screenDiagonal() const;
  /// The authorization server's clock minus the device's, in seconds; 0 before the first exchange.
  double timeIntervalBetweenServerAndDevice() const;

  /// False for a request that was created, by the device's clock, on a later day; true for one
  /// without a creation date.
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
  /// An error of the agent's own domain, or of another one.
  struct Error {
    const char* domain = nullptr;
    std::int64_t code = 0;
    bool keepsRequest() const;
  };
  /// How one attempt to send ended; without a fate the request stays.
  struct Attempt {
    std::optional<Error> error;
    std::optional<orbiq::HitFate> fate;
    /// Why it failed, for the statistics; null if it did not.
    orbiq::String failure;
  };

  friend class orbiq::NeverDestroyed<orbiqAgent>;
  orbiqAgent() noexcept;
  ~orbiqAgent();

  // Its start, each part of which is made once, and again where it could not be made.
  void start();
  void makeParts() ORBIQ_REQUIRES(startLock);
  void observeAndHandleRequests() ORBIQ_REQUIRES(startLock);
  void resume();

  // What "orbiqRequestHandler" does.
  bool giveWork(std::shared_ptr<orbiqRequest> added, orbiq::Trigger trigger);
  void work();
  void add(const std::shared_ptr<orbiqRequest>& request);
  void lookAgain(orbiq::Trigger trigger);

  // The queue.
  void loadRequests() ORBIQ_REQUIRES(requestsProtector);
  void saveRequests() ORBIQ_REQUIRES(requestsProtector);
  /// Called when nothing has been added for two seconds.
  void rest();
  void syncAtRest() ORBIQ_REQUIRES(requestsProtector);
  bool append(const std::shared_ptr<orbiqRequest>& request) ORBIQ_REQUIRES(requestsProtector);
  void enqueue(const std::shared_ptr<orbiqRequest>& request) ORBIQ_REQUIRES(requestsProtector);
  void dequeue() ORBIQ_REQUIRES(requestsProtector);
  template <class IsUnwanted>
  std::size_t removeIf(const IsUnwanted& isUnwanted) ORBIQ_REQUIRES(requestsProtector);
  void removeRequestFromQueue(const std::shared_ptr<orbiqRequest>& request,
                              std::optional<orbiq::HitFate> fate) ORBIQ_REQUIRES(requestsProtector);
  void discardAudienceRequests() ORBIQ_REQUIRES(requestsProtector);
  void renewSession(const orbiqRequest& request);

  // The sending loop.
  [[noreturn]] void handleRequests();
  void waitForHead() ORBIQ_REQUIRES(requestsProtector);
  bool headIsDue() ORBIQ_REQUIRES(requestsProtector);
  void noteNetwork(bool isThere) ORBIQ_REQUIRES(requestsProtector);
  void handleHead() ORBIQ_REQUIRES(requestsProtector);
  void sendStopCopyOf(const std::shared_ptr<orbiqRequest>& request)
      ORBIQ_REQUIRES(requestsProtector);
  std::optional<Error> handleRequest(const std::shared_ptr<orbiqRequest>& request)
      ORBIQ_REQUIRES(requestsProtector);
  Attempt attempt(const std::shared_ptr<orbiqRequest>& request) ORBIQ_REQUIRES(requestsProtector);
  bool authorize(orbiqRequest& request) ORBIQ_REQUIRES(requestsProtector);
  Attempt send(orbiqRequest& request, const orbiq::Url& url) ORBIQ_REQUIRES(requestsProtector);
  bool isReachable() const;

  std::shared_ptr<orbiqReachability> reachability;
  std::unordered_map<std::shared_ptr<const orbiqTaggerIdentifier>,
                     std::shared_ptr<orbiqAudienceTagger>, orbiq::ObjectHash, orbiq::ObjectIsEqual>
      orbiqAudienceTaggers;
  // Made and never used; kept for what may be stored by serial one day.
  std::unordered_map<std::shared_ptr<const orbiqTaggerIdentifier>, std::shared_ptr<orbiqAccess>,
                     orbiq::ObjectHash, orbiq::ObjectIsEqual>
      orbiqSerialAccess;
  // Fair, so that additions get in between two sends of a long queue.
  orbiq::FairCondition requestsProtector;
  std::unique_ptr<std::deque<std::shared_ptr<orbiqRequest>>> requestQueue
      ORBIQ_GUARDED_BY(requestsProtector);
  // In the queue. Counted, so that an addition need not look through it.
  std::size_t pendingMarkers ORBIQ_GUARDED_BY(requestsProtector) = 0;
  std::size_t pendingStreaming ORBIQ_GUARDED_BY(requestsProtector) = 0;
  // False from an addition until `rest`: meanwhile, the loop's going to sleep is no rest.
  bool isQuiet ORBIQ_GUARDED_BY(requestsProtector) = true;
  bool waitsForNetwork ORBIQ_GUARDED_BY(requestsProtector) = false;
  // These by pointer: applications include this header, and not theirs.
  std::unique_ptr<orbiq::RequestsFile> requestsFile ORBIQ_GUARDED_BY(requestsProtector);
  orbiq::HitLedger* const ledger;
  orbiq::HandlerWork* const handlerWork;
  std::unique_ptr<orbiq::SerialQueue> requestSender;
  std::unique_ptr<orbiq::SerialQueue> requestHandler;
  orbiq::Mutex partialIDLocker;
  std::int64_t _partialID ORBIQ_GUARDED_BY(partialIDLocker) = 0;

  orbiq::Mutex startLock;
  std::atomic<bool> isStarted = false;
  std::atomic<bool> isNotified = false;
};
