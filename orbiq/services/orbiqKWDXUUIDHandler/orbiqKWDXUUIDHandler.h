#pragma once

/// @file
/// The device identifier.

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/keychain/Keychain.h"
#include "orbiq/services/platform/text/String.h"

/// Keeps one random identifier of the device, a UUID, in the keychain, so that it outlives the
/// process. Nothing else in the library uses it; it leaves the device only if the application sends
/// it.
///
/// Nothing here is synchronised: use it from one thread at a time. Calls may wait for the disk or,
/// with a keyring, for its daemon. Describe the application before the first call: what the
/// description says of keychain and library directory decides where the identifier is kept. In a
/// forked child only what the parent remembered can be had; the keychain is neither asked nor
/// changed.
class ORBIQ_EXPORT orbiqKWDXUUIDHandler {
 public:
  orbiqKWDXUUIDHandler() = delete;

  /// A new random UUID: 36 characters, upper case. Null if the machine gives no random numbers.
  static orbiq::String generateUUID();

  /// The device's identifier, which is added to the keychain if that has none, and remembered once
  /// it was read from there. Null after a keychain error, which is logged, and where what is kept
  /// is no text.
  ///
  /// Of two processes that ask a fresh keychain at once, one may get null; its next call returns
  /// what the other one added.
  static orbiq::String UUID();

  /// Stores a new identifier, in place of an existing one (`update`) or as a new item. Returns it,
  /// or null after a keychain error, which is logged: an update needs an item, an addition that
  /// there is none. What `UUID` remembers stays as it is.
  static orbiq::String storeUUID(bool update);

  /// Forgets the identifier and deletes it from the keychain. An error is logged.
  static void reset();

  /// The keychain's access group to use; null, the default, for none.
  static orbiq::String accessGroup();
  /// Shares the text. If an identifier is remembered, the new group counts for `UUID` only after
  /// `reset`.
  static void setAccessGroup(const orbiq::String& accessGroup);
};

/// A new query that names the identifier's item, with the access group if there is one. A plain
/// value: throws `std::bad_alloc` without memory for it.
ORBIQ_EXPORT orbiq::KeychainQuery orbiqCreateKeychainQueryDictionary();
