#pragma once

#include <memory>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/text/String.h"

/// The session that the authorization server named for an account. Never changes.
class ORBIQ_EXPORT orbiqSession : public orbiq::Archivable {
 public:
  /// A record made by the constructor below.
  static std::shared_ptr<orbiqSession> orbiqSessionWithSerial_withCmsVI(orbiq::String serial,
                                                                        orbiq::String cmsVI);

  /// Stores both texts as given; either may be null.
  orbiqSession(orbiq::String serial, orbiq::String cmsVI);
  /// Reads a record out of an archive; what is missing there is null.
  explicit orbiqSession(orbiq::KeyedUnarchiver& coder);

  /// The session's number, as the server wrote it; random in a fallback.
  orbiq::String cmsVI() const { return _cmsVI; }
  /// The customer account.
  orbiq::String serial() const { return _serial; }

  /// A record of the same texts.
  std::shared_ptr<orbiqSession> copy() const;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes all fields.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  orbiq::String _cmsVI;
  orbiq::String _serial;
};
