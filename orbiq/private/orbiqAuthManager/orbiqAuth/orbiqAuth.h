#pragma once

#include <memory>

#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"
#include "orbiq/private/orbiqAuthManager/orbiqSession/orbiqSession.h"
#include "orbiq/services/platform/archive/Archivable.h"

/// An authorization: a session and an access. Either may be absent. Never changes, but its access,
/// which copies share, may be marked.
class ORBIQ_EXPORT orbiqAuth : public orbiq::Archivable {
 public:
  /// A record made by the constructor below.
  static std::shared_ptr<orbiqAuth> orbiqAuthWithSession_withAccess_andIsDefault(
      std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access, bool isDefault);

  /// Keeps the very objects it is given. The third argument is dropped: a fallback counts
  /// as an answer until it is forgotten, so it is never fetched again on its own.
  orbiqAuth(std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access,
            bool isDefault);
  /// Reads a record out of an archive; what is missing there is null or false.
  explicit orbiqAuth(orbiq::KeyedUnarchiver& coder);

  /// True only for a record that was read from an archive with this value.
  bool isDefaultValues() const { return defaultValues; }
  /// Null if there is none.
  std::shared_ptr<orbiqSession> currentSession() const { return _currentSession; }
  /// Null if there is none: then nothing may be sent.
  std::shared_ptr<orbiqAccess> currentAccess() const { return _currentAccess; }

  /// A new record that shares session and access; its `isDefaultValues` is false.
  std::shared_ptr<orbiqAuth> copy() const;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes all fields.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  bool defaultValues = false;
  std::shared_ptr<orbiqSession> _currentSession;
  std::shared_ptr<orbiqAccess> _currentAccess;
};
