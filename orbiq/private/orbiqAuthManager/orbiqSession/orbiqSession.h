#pragma once

#include <memory>

#include "orbiq/services/platform/Archivable.h"
#include "orbiq/services/platform/String.h"

/// The session that the authorization server named for an account. Never changes.
class ORBIQ_EXPORT orbiqSession : public orbiq::Archivable {
 public:
  static std::shared_ptr<orbiqSession> orbiqSessionWithSerial_withCmsVI(orbiq::String serial,
                                                                        orbiq::String cmsVI);

  /// Stores both texts as given; either may be null.
  orbiqSession(orbiq::String serial, orbiq::String cmsVI);
  explicit orbiqSession(orbiq::KeyedUnarchiver& coder);

  orbiq::String cmsVI() const { return _cmsVI; }
  orbiq::String serial() const { return _serial; }

  std::shared_ptr<orbiqSession> copy() const;

  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  orbiq::String _cmsVI;
  orbiq::String _serial;
};
