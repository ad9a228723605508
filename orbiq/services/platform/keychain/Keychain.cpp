#include "orbiq/services/platform/keychain/Keychain.h"

namespace orbiq {

Keychain::~Keychain() = default;

}  // namespace orbiq
