#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orbiq/services/platform/base/Export.h"

namespace orbiq {

/// The small root of the classes that are compared, keyed by or archived.
class ORBIQ_EXPORT Object {
 public:
  Object() = default;
  virtual ~Object();
  /// What can be copied has an operation for it.
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /// Identity, unless a class says otherwise. A null `other` is equal to nothing.
  virtual bool isEqual(const Object* other) const;
  /// Equal objects have equal hashes.
  virtual std::uintptr_t hash() const;
  /// A text for logs.
  virtual std::string description() const;
};

/// Functors for maps whose keys are shared objects.
struct ObjectHash {
  /// 0 for a null key.
  std::uintptr_t operator()(const std::shared_ptr<const Object>& key) const {
    return key ? key->hash() : 0;
  }
};
struct ObjectIsEqual {
  /// Asks the left one; a null key is equal to nothing.
  bool operator()(const std::shared_ptr<const Object>& left,
                  const std::shared_ptr<const Object>& right) const {
    return left && left->isEqual(right.get());
  }
};

/// The one arithmetic of every record's hash: start at 1, then fold each field's value in, wrapping
/// in the machine's word.
constexpr std::uintptr_t foldHash(std::uintptr_t result, std::uintptr_t value) {
  return 31 * result + value;
}
/// A flag's share of a hash.
constexpr std::uintptr_t hashOf(bool value) { return value ? 1231 : 1237; }

}  // namespace orbiq
