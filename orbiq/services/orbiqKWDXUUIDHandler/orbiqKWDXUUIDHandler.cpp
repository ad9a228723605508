#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"

#include <exception>
#include <string>

#include "orbiq/services/orbiqLogger/WithoutThrowing.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/base/Random.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "orbiq/services/platform/threads/Thread.h"

using enum orbiq::KeychainStatus;
using orbiq::Keychain;
using orbiq::KeychainAttributes;
using orbiq::KeychainMatch;
using orbiq::KeychainQuery;
using orbiq::KeychainStatus;
using orbiq::Platform;
using orbiq::withoutThrowing;

namespace {

struct State {
  orbiq::String _uuid;
  orbiq::String _accessGroup;
};

State& state() {
  static orbiq::NeverDestroyed<State> only;
  return *only;
}

/// Calls the keychain, which may be the host's: what it throws ends here.
template <class Call>
auto ask(const Call& call) {
  decltype(call(*Platform::currentKeychain())) answer{errSecNotAvailable};
  orbiq::runTask([&] {
    if (Keychain* const keychain = Platform::currentKeychain()) answer = call(*keychain);
  });
  return answer;
}

KeychainMatch lookUp(const KeychainQuery& query) {
  return ask([&](Keychain& keychain) { return keychain.copyMatching(query); });
}

void logError(const char* message, KeychainStatus status) {
  orbiq::SystemLog::write(orbiq::LoggingModeError, message + std::to_string(status));
}

}  // namespace

orbiq::KeychainQuery orbiqCreateKeychainQueryDictionary() {
  return {.account = "kwdx_uuid_account",
          .service = "kwdx_uuid_service",
          .accessGroup = state()._accessGroup};
}

orbiq::String orbiqKWDXUUIDHandler::generateUUID() {
  try {
    return orbiq::randomUuid();
  } catch (const std::exception&) {
    return nullptr;
  }
}

// The parent's stores are left alone in a forked child, which might find their locks taken.
orbiq::String orbiqKWDXUUIDHandler::UUID() {
  orbiq::String& uuid = state()._uuid;
  if (orbiq::isForkedAway() || !uuid.isNull()) return uuid;
  return withoutThrowing([&]() -> orbiq::String {
    KeychainQuery query = orbiqCreateKeychainQueryDictionary();
    KeychainMatch match = lookUp(query);
    if (match.status == errSecSuccess) {
      query.returnAttributes = false;
      query.returnData = true;
      match = lookUp(query);
      if (match.status == errSecSuccess) {
        if (match.data && orbiq::isValidUtf8(*match.data)) uuid = *match.data;
        return uuid;
      }
    }
    // A new identifier is not remembered yet: the next call reads back what the keychain kept.
    if (match.status == errSecItemNotFound) return storeUUID(false);
    logError("KWDXUUIDHandler Unhandled Keychain Error ", match.status);
    return nullptr;
  });
}

orbiq::String orbiqKWDXUUIDHandler::storeUUID(bool update) {
  if (orbiq::isForkedAway()) return nullptr;
  return withoutThrowing([&]() -> orbiq::String {
    KeychainQuery query = orbiqCreateKeychainQueryDictionary();
    orbiq::String uuid = generateUUID();
    if (uuid.isNull()) return nullptr;

    const KeychainAttributes attributes{.valueData = uuid.toStdString()};
    if (!update) query.valueData = attributes.valueData;
    const KeychainStatus status = ask([&](Keychain& keychain) {
      return update ? keychain.update(query, attributes) : keychain.add(query);
    });
    if (status == errSecSuccess) return uuid;
    logError("KWDXUUIDHandler Keychain Save Error: ", status);
    return nullptr;
  });
}

void orbiqKWDXUUIDHandler::reset() {
  if (orbiq::isForkedAway()) return;
  withoutThrowing([] {
    state()._uuid = nullptr;
    KeychainQuery query = orbiqCreateKeychainQueryDictionary();
    query.returnAttributes = true;
    // Also where the look-up failed otherwise: what cannot be read can perhaps be deleted.
    if (lookUp(query).status == errSecItemNotFound) return;
    const KeychainStatus status =
        ask([&](Keychain& keychain) { return keychain.deleteMatching(query); });
    if (status != errSecSuccess) logError("KWDXUUIDHandler Keychain Delete Error: ", status);
  });
}

orbiq::String orbiqKWDXUUIDHandler::accessGroup() { return state()._accessGroup; }

void orbiqKWDXUUIDHandler::setAccessGroup(const orbiq::String& accessGroup) {
  state()._accessGroup = accessGroup;
}
