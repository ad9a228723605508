#include "bench/fleet/AgentModel.h"

#include <numeric>

#include "orbiq/private/orbiqAgent/SendingRules.h"

namespace orbiq::bench {
namespace {

constexpr std::uint16_t kStatusOk = 200;

/// The devices' clocks, which are all right.
Date dateOf(Moment moment) {
  constexpr double kBeginning = 788'000'000;
  return Date::sinceReferenceDate(kBeginning + static_cast<double>(moment) / kSecond);
}

/// Markers are of the audience type.
RequestType typeOf(Kind kind) {
  return kind == Kind::Streaming ? RequestTypeStreaming : RequestTypeAudience;
}

}  // namespace

std::uint64_t Accounts::settled() const {
  return std::accumulate(fates.begin(), fates.end(), lostAtEnd);
}

void AgentModel::add(Client& client, Kind kind, bool renewsSession, Moment now) {
  ++_accounts.accepted;
  link(client, {.created = now, .kind = kind, .renewsSession = renewsSession});
  if (client.phase != Client::Phase::Idle) {
    ++client.waiting;
    return;
  }
  append(client, _requests.at(client.tail));
  work(client, now);
}

void AgentModel::enterForeground(Client& client, Moment now) {
  if (client.phase == Client::Phase::Idle) work(client, now);
}

void AgentModel::regainNetwork(Client& client, Moment now) {
  client.isOffline = false;
  if (client.phase != Client::Phase::Idle) {
    client.networkReturnWaits = true;
    client.waitingBeforeNetwork = client.waiting;
    return;
  }
  discardAudience(client, HitFate::DiscardedAtNetworkReturn);
  work(client, now);
}

void AgentModel::restart(Client& client, Moment now) {
  client.phase = Client::Phase::Idle;
  client.exchangeEnd = kNever;
  client.authorization = Authorization::None;
  client.networkReturnWaits = false;
  // What waited to be added stands behind the queue.
  std::uint32_t place = client.head;
  for (std::uint16_t i = 0; i < client.queued; ++i) {
    _requests.at(place).renewsSession = false;  // it does not come back from the file
    client.tail = place;
    place = _requests.at(place).next;
  }
  for (; client.waiting > 0; --client.waiting) {
    const std::uint32_t lost = place;
    place = _requests.at(place).next;
    _requests.giveBack(lost);
    ++_accounts.lostAtEnd;
  }
  discardAudience(client, HitFate::DiscardedAtStart);
  if (client.queued > 0) {
    link(client, {.created = now, .kind = Kind::Marker});
    ++client.queued;
    client.hasMarker = true;
  }
  work(client, now);
}

void AgentModel::endExchange(Client& client) {
  const Moment now = client.exchangeEnd;
  const bool wasSending = client.phase == Client::Phase::Sending;
  client.exchangeEnd = kNever;
  client.phase = Client::Phase::Idle;
  if (wasSending) {
    const auto fate = SendingRules::fateAfter(
        client.status == 0 ? std::nullopt : std::optional<int>(client.status));
    if (fate) {
      removeHead(client, fate);
    } else {
      keepHead(client, now);
    }
  } else {
    client.authorization =
        client.status == kStatusOk ? Authorization::Granted : Authorization::Fallback;
    _requests.at(client.head).authorization = client.authorization;
    if (send(client, now)) return;  // additions do not get in between the two exchanges
  }
  absorb(client);
  work(client, now);
}

bool AgentModel::isSilenced(const Client& client) const {
  return client.authorization == Authorization::Fallback ||
         (client.queued > 0 && _requests.at(client.head).authorization == Authorization::Fallback);
}

/// The sending loop, until it waits for a signal or an exchange.
void AgentModel::work(Client& client, Moment now) {
  const Date date = dateOf(now);
  while (client.queued > 0 && !client.isOffline) {
    const auto lastFail =
        client.lastFail == kNever ? std::nullopt : std::optional(dateOf(client.lastFail));
    if (!SendingRules::isDue(lastFail, date)) return;
    const Request& head = _requests.at(client.head);
    if (head.kind == Kind::Marker) {
      client.authorization = Authorization::None;
      client.hasMarker = false;
      removeHead(client, std::nullopt);
    } else if (!SendingRules::isValid(dateOf(head.created), date, 0)) {
      removeHead(client, HitFate::GivenUp);
    } else if (attempt(client, now)) {
      return;
    }
  }
}

/// Whether an exchange has begun.
bool AgentModel::attempt(Client& client, Moment now) {
  Request& head = _requests.at(client.head);
  const bool hasItsOwn = head.authorization != Authorization::None;
  if (SendingRules::takesCachedAuthorization(typeOf(head.kind), hasItsOwn)) {
    // A fallback is as good as an answer here: it is never asked for again.
    if (client.authorization == Authorization::None) {
      const Servers::Answer answer = _servers.authorize(now, client.random);
      client.phase = Client::Phase::Authorizing;
      client.status = answer.status;
      client.exchangeEnd = now + answer.takes;
      return true;
    }
    head.authorization = client.authorization;
  }
  return send(client, now);
}

bool AgentModel::send(Client& client, Moment now) {
  const Request& head = _requests.at(client.head);
  if (head.renewsSession) client.authorization = Authorization::None;
  if (head.authorization == Authorization::Fallback) {
    keepHead(client, now);  // its URL has no host, so this takes no time
    return false;
  }
  const Servers::Answer answer = _servers.takeHit(now, client.random);
  client.phase = Client::Phase::Sending;
  client.status = answer.status;
  client.exchangeEnd = now + answer.takes;
  return true;
}

/// It has failed.
void AgentModel::keepHead(Client& client, Moment now) {
  client.lastFail = now;
  if (client.queued > SendingRules::kMostRequests) removeHead(client, HitFate::PushedOut);
}

/// The request, which is linked already, becomes the last one of the queue.
void AgentModel::append(Client& client, Request& request) {
  if (!client.hasMarker) {
    request.authorization = client.authorization;
    if (request.renewsSession) client.authorization = Authorization::None;
  }
  ++client.queued;
  if (client.queued <= SendingRules::kMostRequests) return;
  const bool isMarker = _requests.at(client.head).kind == Kind::Marker;
  if (isMarker) client.hasMarker = false;
  removeHead(client, isMarker ? std::nullopt : std::optional(HitFate::PushedOut));
}

/// What waited for the end of the exchange.
void AgentModel::absorb(Client& client) {
  if (client.networkReturnWaits) {
    absorb(client, client.waitingBeforeNetwork);
    discardAudience(client, HitFate::DiscardedAtNetworkReturn);
    client.networkReturnWaits = false;
  }
  absorb(client, client.waiting);
}

void AgentModel::absorb(Client& client, std::uint16_t additions) {
  if (additions == 0) return;
  std::uint32_t place = client.head;
  for (std::uint16_t i = 0; i < client.queued; ++i) place = _requests.at(place).next;
  for (std::uint16_t i = 0; i < additions; ++i) {
    Request& request = _requests.at(place);
    place = request.next;
    --client.waiting;
    append(client, request);
  }
}

void AgentModel::removeHead(Client& client, std::optional<HitFate> fate) {
  const std::uint32_t place = client.head;
  client.head = _requests.at(place).next;
  client.lastFail = kNever;
  --client.queued;
  drop(place, fate);
}

void AgentModel::discardAudience(Client& client, HitFate fate) {
  const std::uint16_t looked = client.queued;
  std::uint32_t place = client.head;
  std::uint32_t last = 0;
  std::uint16_t kept = 0;
  for (std::uint16_t i = 0; i < looked; ++i) {
    const Request request = _requests.at(place);
    if (SendingRules::isDroppedLate(typeOf(request.kind))) {
      if (i == 0) client.lastFail = kNever;
      drop(place, request.kind == Kind::Marker ? std::nullopt : std::optional(fate));
    } else {
      (kept == 0 ? client.head : _requests.at(last).next) = place;
      last = place;
      ++kept;
    }
    place = request.next;
  }
  client.queued = kept;
  client.hasMarker = false;
  if (client.waiting == 0) {
    if (kept > 0) client.tail = last;
  } else {
    (kept == 0 ? client.head : _requests.at(last).next) = place;
  }
}

void AgentModel::link(Client& client, const Request& request) {
  const std::uint32_t place = _requests.take(request);
  const bool isFirst = client.queued + client.waiting == 0;
  (isFirst ? client.head : _requests.at(client.tail).next) = place;
  client.tail = place;
}

void AgentModel::drop(std::uint32_t place, std::optional<HitFate> fate) {
  _requests.giveBack(place);
  if (fate) ++_accounts.fates[static_cast<std::size_t>(*fate)];
}

}  // namespace orbiq::bench
