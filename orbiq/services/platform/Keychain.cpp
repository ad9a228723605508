#include "orbiq/services/platform/Keychain.h"

namespace orbiq {

Keychain::~Keychain() = default;

}  // namespace orbiq
