#pragma once

#include <memory>

#include "orbiq/private/orbiqRequest/orbiqRequest.h"

/// A marker in the queue: when the sending loop reaches it, the authorization cache is cleared. It
/// carries nothing; all its fields are null, 0 or false.
class ORBIQ_EXPORT orbiqClearCache final : public orbiqRequest {
 public:
  /// An empty marker.
  orbiqClearCache() = default;
  /// An empty marker, whatever the archive holds.
  explicit orbiqClearCache(orbiq::KeyedUnarchiver& coder);

  /// All markers are equal, so that the queue can be searched for one. No request equals a marker.
  bool isEqual(const orbiq::Object* other) const override;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes nothing, not even what every request has: a marker carries nothing.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;
};
