#pragma once

#include <atomic>
#include <memory>

#include "orbiq/services/platform/Archivable.h"
#include "orbiq/services/platform/Enumerations.h"
#include "orbiq/services/platform/String.h"

/// What an account may send, and to which host. Only the first-hit mark ever changes, from false to
/// true, and it may do so on any thread.
class ORBIQ_EXPORT orbiqAccess : public orbiq::Archivable,
                                 public std::enable_shared_from_this<orbiqAccess> {
 public:
  static std::shared_ptr<orbiqAccess> orbiqAccessWithSerial_withAccessMode_withBaseURL(
      orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL);

  /// The host is the base URL with the serial behind it; a null base URL gives a null host. Throws
  /// `std::invalid_argument` for a null serial with a base URL.
  orbiqAccess(orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL);
  explicit orbiqAccess(orbiq::KeyedUnarchiver& coder);

  orbiq::AccessMode accessMode() const { return _accessMode; }
  orbiq::String serial() const { return _serial; }
  orbiq::String host() const { return _host; }
  orbiq::String baseURL() const { return _baseURL; }

  /// Denied: never. Restricted: until the first hit was sent with success. Else: always. The type
  /// is ignored, and that is meant.
  bool canSendRequestFor(orbiq::RequestType requestType) const;

  /// Marks the first hit as sent and returns this record (null if no `shared_ptr` holds it).
  std::shared_ptr<orbiqAccess> hitSuccessfullySent();

  /// An independent record: its host is composed anew, the mark is carried over.
  std::shared_ptr<orbiqAccess> copy() const;

  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  std::atomic<bool> firstHitSuccessfullySent{false};
  orbiq::AccessMode _accessMode = orbiq::AccessModeFull;
  orbiq::String _serial;
  orbiq::String _host;
  orbiq::String _baseURL;
};
