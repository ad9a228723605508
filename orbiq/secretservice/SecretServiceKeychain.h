#pragma once

#include <memory>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/keychain/Keychain.h"

namespace orbiq {

/// A keychain in the user's keyring (GNOME Keyring, KWallet, KeePassXC: whatever offers the Secret
/// Service on the session's bus). For `HostDescription::keychain`.
///
/// It never prompts. Unless the default keyring is there and unlocked, every call answers
/// `errSecNotAvailable` or `errSecInteractionNotAllowed`, so a keyring that is out of reach never
/// looks like one without the item. New items go into the default keyring; existing ones are found
/// in all keyrings, the default one's first. Where none of the unlocked ones has the item, a locked
/// one may: that is `errSecInteractionNotAllowed`, too. An item without an access group belongs to
/// the application, by its bundle identifier; one with a group to all applications of the user that
/// name the group.
///
/// Any thread. Each call waits for the daemon, at most as long as D-Bus does. An addition waits up
/// to half a minute for that of another process. In a process that was forked after the first call
/// it answers `errSecNotAvailable`.
ORBIQ_EXPORT std::shared_ptr<Keychain> makeSecretServiceKeychain();

}  // namespace orbiq
