#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "orbiq/private/orbiqAgent/HandlerWork.h"
#include "orbiq/private/orbiqAgent/HitLedger.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAgent/orbiqTaggerIdentifier/orbiqTaggerIdentifier.h"
#include "orbiq/services/orbiqReachability/orbiqReachability.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/threads/Mutex.h"

/// What the agent is made of. Making it takes no memory, so that there is an agent in any case; its
/// parts are made at the start, and again where one could not be made.
///
/// Locks: the factory's lock of `orbiqAudienceTagger` is held alone or around the registry, which
/// takes none; `startLock` is the outermost. `requestsProtector` may be held while the
/// authorization cache's lock, the ledger's lock or one of the platform's is taken, never the other
/// way round; `partialIDLocker` is held alone.
struct orbiqAgent::State {
  /// An error of the agent's own domain, or of another one.
  struct Error {
    const char* domain = nullptr;
    std::int64_t code = 0;
  };
  /// How one attempt to send ended. Without a fate the request stays: the network was not there, or
  /// no response came.
  struct Attempt {
    std::optional<Error> error;
    std::optional<orbiq::HitFate> fate;
    /// Why it failed, for the statistics; null if it did not.
    orbiq::String failure;
  };

  static State& ofProcess();
  ~State();

  void start();
  void makeParts() ORBIQ_REQUIRES(startLock);
  void observeAndHandleRequests() ORBIQ_REQUIRES(startLock);
  void resume();

  // What "orbiqRequestHandler" does.
  bool giveWork(const orbiq::HandlerWork::Item& item);
  /// Says once that a queue got no thread, for that error, and once that it has one again.
  void noteThread(std::atomic<bool>& isMissing, int error);
  void work();
  void add(const orbiq::HandlerWork::Item& item);
  void lookAgain(orbiq::Trigger trigger);

  // What wakes the sending loop from outside.
  void reachabilityStatusChanged();
  void applicationWillEnterForeground();

  // The queue.
  void addRequestToQueue(std::shared_ptr<orbiqRequest> request);
  void loadRequests() ORBIQ_REQUIRES(requestsProtector);
  void saveRequests() ORBIQ_REQUIRES(requestsProtector);
  /// Called when nothing has been added for two seconds.
  void rest();
  void syncAtRest() ORBIQ_REQUIRES(requestsProtector);
  bool append(const orbiq::HandlerWork::Item& item) ORBIQ_REQUIRES(requestsProtector);
  /// Returns the place of the next one.
  orbiq::RequestQueue::iterator dequeue(orbiq::RequestQueue::iterator request)
      ORBIQ_REQUIRES(requestsProtector);
  void countDequeued(orbiq::HitFate fate, const orbiq::String& failure = {})
      ORBIQ_REQUIRES(requestsProtector);
  template <class IsUnwanted>
  void removeIf(const IsUnwanted& isUnwanted) ORBIQ_REQUIRES(requestsProtector);
  /// A marker's fate is not counted.
  void removeRequestFromQueue(const std::shared_ptr<orbiqRequest>& request, orbiq::HitFate fate,
                              const orbiq::String& failure = {}) ORBIQ_REQUIRES(requestsProtector);
  static void renewSession(const orbiqRequest& request);

  // The sending loop.
  [[noreturn]] void handleRequests();
  void waitForHead() ORBIQ_REQUIRES(requestsProtector);
  bool headIsDue() ORBIQ_REQUIRES(requestsProtector);
  void noteNetwork(bool isThere) ORBIQ_REQUIRES(requestsProtector);
  void handleHead() ORBIQ_REQUIRES(requestsProtector);
  void sendStopCopyOf(const std::shared_ptr<orbiqRequest>& request)
      ORBIQ_REQUIRES(requestsProtector);
  Attempt handleRequest(const std::shared_ptr<orbiqRequest>& request)
      ORBIQ_REQUIRES(requestsProtector);
  static orbiq::String authorize(orbiqRequest& request);
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
  std::optional<orbiq::RequestQueue> requestQueue ORBIQ_GUARDED_BY(requestsProtector);
  /// One for each place of the queue. Behind them those of dequeued requests until they are
  /// counted.
  std::vector<orbiq::HitLedger::Number> numbers ORBIQ_GUARDED_BY(requestsProtector);
  // False from an addition until `rest`: meanwhile, the loop's going to sleep is no rest.
  bool isQuiet ORBIQ_GUARDED_BY(requestsProtector) = true;
  bool waitsForNetwork ORBIQ_GUARDED_BY(requestsProtector) = false;
  std::optional<orbiq::RequestsFile> requestsFile ORBIQ_GUARDED_BY(requestsProtector);
  std::optional<orbiq::SerialQueue> requestSender;
  std::optional<orbiq::SerialQueue> requestHandler;
  orbiq::Mutex partialIDLocker;
  std::int64_t _partialID ORBIQ_GUARDED_BY(partialIDLocker) = 0;

  orbiq::HitLedger ledger;
  orbiq::HandlerWork handlerWork;
  orbiq::Mutex startLock;
  std::atomic<bool> isStarted = false;
  std::atomic<bool> isNotified = false;
  // Whether no thread could be started for that queue.
  std::atomic<bool> lacksSender = false;
  std::atomic<bool> lacksHandler = false;
};
