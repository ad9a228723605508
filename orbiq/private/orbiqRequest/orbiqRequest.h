#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h"
#include "orbiq/private/orbiqRequest/RequestEnumerations.h"
#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/time/Date.h"

/// One hit that waits to be sent, with the agent's bookkeeping. It has no lock: once it is queued
/// it belongs to the agent.
class ORBIQ_EXPORT orbiqRequest : public orbiq::Archivable {
 public:
  /// A request made by the constructor below.
  static std::shared_ptr<orbiqRequest>
  orbiqRequestWithParameters_withRequestType_forSendingMode_forSerial_forTagger(
      orbiq::SharedParameters parameters, orbiq::RequestType requestType,
      orbiq::SendingMode sendingMode, orbiq::String serial,
      std::shared_ptr<orbiqTaggerID> taggerID);

  /// Keeps the arguments as given; any may be null. The request is created now and waits.
  orbiqRequest(orbiq::SharedParameters parameters, orbiq::RequestType requestType,
               orbiq::SendingMode sendingMode, orbiq::String serial,
               std::shared_ptr<orbiqTaggerID> taggerID);
  /// Reads a request out of an archive; what is missing there is null, 0 or false.
  explicit orbiqRequest(orbiq::KeyedUnarchiver& coder);

  /// The hit's parameters: saved and described, but never sent.
  orbiq::SharedParameters parameters() const { return _parameters; }
  /// Audience requests do not outlive the process; streaming ones do.
  orbiq::RequestType requestType() const { return _requestType; }
  /// Where the request is sent.
  orbiq::SendingMode sendingMode() const { return _sendingMode; }
  /// The tagger by which the authorization is looked up.
  std::shared_ptr<orbiqTaggerID> taggerID() const { return _taggerID; }
  /// The customer account; may be null.
  orbiq::String serial() const { return _serial; }
  /// Keeps a copy.
  void setSerial(const orbiq::String& serial) { _serial = serial.copy(); }
  /// Time of the last failed send; none before one.
  std::optional<orbiq::Date> lastFail() const { return _lastFail; }
  /// Within a minute of it, before or after, the request is not sent.
  void setLastFail(std::optional<orbiq::Date> lastFail) { _lastFail = lastFail; }
  /// None for a marker. A request from a later day is not sent.
  std::optional<orbiq::Date> creationDate() const { return _creationDate; }
  /// The agent sets it anew for a stop copy.
  void setCreationDate(std::optional<orbiq::Date> creationDate) { _creationDate = creationDate; }
  /// How many sends brought no response.
  std::uint64_t numberOfFails() const { return _numberOfFails; }
  /// Only counted: no number of failures ends the attempts.
  void setNumberOfFails(std::uint64_t numberOfFails) { _numberOfFails = numberOfFails; }
  /// Kept for whoever looks; nothing depends on it.
  orbiq::RequestStatus status() const { return _status; }
  /// The agent sets it at each attempt.
  void setStatus(orbiq::RequestStatus status) { _status = status; }
  /// The agent forgets the tagger's authorization before it sends this request and, in
  /// `SendingModeSerialWithStop`, sends a stop copy after it.
  bool shouldRenewSessionAfter() const { return _shouldRenewSessionAfter; }
  /// Saved, but not read back: no request comes out of the file with it.
  void setShouldRenewSessionAfter(bool renew) { _shouldRenewSessionAfter = renew; }
  /// The authorization under which the request is sent; attached by the agent, null before.
  std::shared_ptr<orbiqAuth> auth() const { return _auth; }
  /// Shares the record.
  void setAuth(std::shared_ptr<orbiqAuth> auth) { _auth = std::move(auth); }

  /// The URL that the request is sent to: the access's host, in the serial modes its serial alone,
  /// and nothing added; the parameters are not sent. No value if that text is no URL or there is no
  /// access.
  std::optional<orbiq::Url> url() const;
  /// Makes the parameters those of the stop: "cmsPS" 12 and the next rank. Null ones stay null.
  void transformToStop();
  /// Sets the rank, "cmsRK"; null parameters stay null. For callers: the library does not use it.
  void setTheRank(std::int64_t rank);
  /// Percent-escapes all but ASCII letters, digits, "-", ".", "_" and "~". For callers: the library
  /// escapes nothing.
  orbiq::String urlEncode(const orbiq::String& text) const;

  /// A request of the same values, sharing parameters and identity, with a copy of the
  /// authorization. The copy of an `orbiqClearCache` is a plain request, which clears nothing.
  std::shared_ptr<orbiqRequest> copy() const;

  /// Of parameters, dates, number of failures, mode and status; `isEqual` is identity.
  std::uintptr_t hash() const override;
  /// Serial, type, host and parameters, as the log shows them.
  std::string description() const override;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes all fields.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 protected:
  /// All fields null, 0 or false.
  orbiqRequest() = default;

 private:
  bool isSentToSerial() const;

  orbiq::SharedParameters _parameters;
  orbiq::RequestType _requestType = orbiq::RequestTypeAudience;
  orbiq::SendingMode _sendingMode = orbiq::SendingModeSerial;
  std::shared_ptr<orbiqTaggerID> _taggerID;
  orbiq::String _serial;
  std::optional<orbiq::Date> _lastFail;
  std::optional<orbiq::Date> _creationDate;
  std::uint64_t _numberOfFails = 0;
  orbiq::RequestStatus _status = orbiq::RequestStatusWaiting;
  bool _shouldRenewSessionAfter = false;
  std::shared_ptr<orbiqAuth> _auth;
};
