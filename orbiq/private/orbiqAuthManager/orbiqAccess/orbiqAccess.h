#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

enum RequestType : std::int32_t;

/// What an account may send. Other numbers come only out of an archive and act as full access.
enum AccessMode : std::int32_t {
  AccessModeFull = 0,
  AccessModeRestricted = 1,
  AccessModeDenied = 2,
};

}  // namespace orbiq

/// What an account may send, and to which host. Only the first-hit mark ever changes, from false to
/// true, and it may do so on any thread.
class ORBIQ_EXPORT orbiqAccess : public orbiq::Archivable,
                                 public std::enable_shared_from_this<orbiqAccess> {
 public:
  /// A record made by the constructor below.
  static std::shared_ptr<orbiqAccess> orbiqAccessWithSerial_withAccessMode_withBaseURL(
      orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL);

  /// The host is the base URL with the serial behind it; a null base URL gives a null host. Throws
  /// `std::invalid_argument` for a null serial with a base URL.
  orbiqAccess(orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL);
  /// Reads a record out of an archive; the host comes as it was stored.
  explicit orbiqAccess(orbiq::KeyedUnarchiver& coder);

  /// What the account may send.
  orbiq::AccessMode accessMode() const { return _accessMode; }
  /// The customer account; may be null.
  orbiq::String serial() const { return _serial; }
  /// The URL of the account's hits; null without a base URL.
  orbiq::String host() const { return _host; }
  /// What the authorization server named as host; empty in a fallback, or null.
  orbiq::String baseURL() const { return _baseURL; }

  /// Denied: never. Restricted: until the first hit was sent with success. Else: always. The type
  /// makes no difference.
  bool canSendRequestFor(orbiq::RequestType requestType) const;

  /// Marks the first hit as sent and returns this record (null if no `shared_ptr` holds it).
  std::shared_ptr<orbiqAccess> hitSuccessfullySent();

  /// Why this is a fallback; null if it is none, or was read out of an archive. Set before the
  /// record is shared.
  orbiq::String fallbackCause() const { return _fallbackCause; }
  /// Says why this is a fallback.
  void setFallbackCause(orbiq::String cause) { _fallbackCause = std::move(cause); }

  /// An independent record: its host is composed anew, the mark is carried over.
  std::shared_ptr<orbiqAccess> copy() const;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes all fields.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  std::atomic<bool> firstHitSuccessfullySent{false};
  orbiq::AccessMode _accessMode = orbiq::AccessModeFull;
  orbiq::String _serial;
  orbiq::String _host;
  orbiq::String _baseURL;
  orbiq::String _fallbackCause;
};
