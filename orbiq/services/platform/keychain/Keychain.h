#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// What a keychain answers. A keychain may also answer with another number of its own.
enum KeychainStatus : std::int32_t {
  errSecSuccess = 0,
  /// There is no keychain that could be asked, or it cannot be read or written.
  errSecNotAvailable = -25291,
  errSecDuplicateItem = -25299,
  /// The keychain is there and certain that it has no such item.
  errSecItemNotFound = -25300,
  /// The keychain is locked, and the user would have to be asked.
  errSecInteractionNotAllowed = -25308,
};

/// The kinds of items.
enum KeychainItemClass : std::int32_t {
  kSecClassGenericPassword = 0,
};

/// Names one item, and says what to do with it. Class, account, service and access group together
/// name at most one item.
struct KeychainQuery {
  /// The item's kind.
  KeychainItemClass itemClass = kSecClassGenericPassword;
  /// Whose item it is. A null text counts as an empty one.
  String account = {};
  /// What it is for. A null text counts as an empty one.
  String service = {};
  /// Null: none. Items with and without a group are different items.
  String accessGroup = {};
  /// What a new item holds. Looking up, updating and deleting pay no heed to it.
  std::optional<std::string> valueData = {};
  /// A look-up brings back the item's data.
  bool returnData = false;
  /// A look-up may bring back the item's attributes. There are none but those in the query, so
  /// nothing is brought back for it.
  bool returnAttributes = false;
};

/// What an update changes.
struct KeychainAttributes {
  /// What the item holds from now on; absent, nothing is changed.
  std::optional<std::string> valueData = {};
};

/// The outcome of a look-up.
struct KeychainMatch {
  /// `errSecSuccess` if the item was found.
  KeychainStatus status = errSecNotAvailable;
  /// Absent if it was not asked for, or the item holds none.
  std::optional<std::string> data = {};
};

/// Keeps small secrets for longer than the process lives. A host may bring one of its own.
///
/// Whoever implements it: answer `errSecItemNotFound` only if that is certain. It makes the caller
/// add a new item, and an old one that was merely out of reach would be lost for good. Do not
/// prompt the user. Calls may come from any thread, several at once, and may wait for a disk or
/// another process; an exception counts as `errSecNotAvailable`.
class ORBIQ_EXPORT Keychain {
 public:
  virtual ~Keychain();
  Keychain(const Keychain&) = delete;
  Keychain& operator=(const Keychain&) = delete;

  /// Looks the item up.
  virtual KeychainMatch copyMatching(const KeychainQuery& query) = 0;
  /// Adds the item that the query names; `errSecDuplicateItem` if it is there already.
  virtual KeychainStatus add(const KeychainQuery& query) = 0;
  /// Changes the item; `errSecItemNotFound` if there is none.
  virtual KeychainStatus update(const KeychainQuery& query, const KeychainAttributes& changes) = 0;
  /// Deletes the item; `errSecItemNotFound` if there is none.
  virtual KeychainStatus deleteMatching(const KeychainQuery& query) = 0;

 protected:
  Keychain() = default;
};

}  // namespace orbiq
