// The records: identities, authorizations, requests, markers.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <vector>

#include "orbiq/private/orbiqAgent/orbiqTaggerIdentifier/orbiqTaggerIdentifier.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "tests/support/Application.h"

namespace orbiq::test {
namespace {

constexpr const ArchivedClass* kAllClasses[] = {
    &orbiqTaggerID::kArchivedClass, &orbiqSession::kArchivedClass,
    &orbiqAccess::kArchivedClass,   &orbiqAuth::kArchivedClass,
    &orbiqRequest::kArchivedClass,  &orbiqClearCache::kArchivedClass};

std::string archived(const Archivable& object) {
  KeyedArchiver archiver;
  archiver.encode({std::shared_ptr<const Archivable>(std::shared_ptr<void>(), &object)});
  return std::string(archiver.bytes());
}

template <class Class>
std::shared_ptr<Class> unarchived(const std::string& archive) {
  const auto objects = KeyedUnarchiver::unarchiveArray(archive, kAllClasses);
  return objects ? std::dynamic_pointer_cast<Class>(objects->front()) : nullptr;
}

/// What the object is after it went through an archive.
template <class Class>
std::shared_ptr<Class> throughArchive(const Class& object) {
  return unarchived<Class>(archived(object));
}

/// Archives under the given class name the fields that a test writes by hand.
class ForeignRecord : public Archivable {
 public:
  using Write = void (*)(KeyedArchiver& coder);
  ForeignRecord(const ArchivedClass& archivedClass, Write write)
      : _class(archivedClass), _write(write) {}
  const ArchivedClass& archivedClass() const override { return _class; }
  void encodeWithCoder(KeyedArchiver& coder) const override { _write(coder); }

 private:
  const ArchivedClass& _class;
  Write _write;
};

template <class Class>
std::shared_ptr<Class> decoded(ForeignRecord::Write write) {
  return unarchived<Class>(archived(ForeignRecord(Class::kArchivedClass, write)));
}

std::shared_ptr<orbiqAccess> access(AccessMode mode, const String& base = "http://b/") {
  return orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL("S1", mode, base);
}

TEST(TaggerIdentity, EqualityAndHash) {
  const orbiqTaggerID one(std::string("ABC"), 5, true);
  const orbiqTaggerID same(std::string("ABC"), 5, true);
  const orbiqTaggerID still(std::string("ABC"), 5, false);
  EXPECT_TRUE(one.isEqual(&same));
  EXPECT_EQ(one.hash(), same.hash());
  EXPECT_FALSE(one.isEqual(&still));
  EXPECT_EQ(still.hash() - one.hash(), 6U);
  EXPECT_FALSE(one.isEqual(std::make_unique<orbiqTaggerID>("ABC", 6, true).get()));
  EXPECT_FALSE(one.isEqual(std::make_unique<orbiqTaggerID>("ABD", 5, true).get()));
  EXPECT_FALSE(one.isEqual(nullptr));

  const orbiqTaggerID nameless(nullptr, 2, false);
  EXPECT_FALSE(nameless.isEqual(&nameless));
  EXPECT_EQ(nameless.hash(), 29791U + 31U * 2U + 1237U);

  const auto byName = orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial("ABC");
  EXPECT_FALSE(one.isEqual(byName.get()));
  EXPECT_FALSE(byName->isEqual(&one));
  const orbiqTaggerIdentifier null;
  EXPECT_TRUE(null.isEqual(byName->orbiqTaggerIdentifierWithSerial(nullptr).get()));
  EXPECT_FALSE(null.isEqual(byName.get()));
  EXPECT_EQ(null.hash(), 31U);
  EXPECT_TRUE(byName->copy()->isEqual(byName.get()));
}

TEST(TaggerIdentity, SharesOrCopiesItsSerial) {
  MutableString serial("ABC");
  const orbiqTaggerID shares(serial, 0, false);
  const auto copies = orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(serial);
  serial.setString("XYZ");
  EXPECT_EQ(shares.serial(), "XYZ");
  EXPECT_TRUE(shares.copy()->serial().isSameObjectAs(serial));
  EXPECT_EQ(copies->serial(), "ABC");
}

TEST(TaggerIdentity, Archive) {
  const std::intptr_t largest = std::numeric_limits<std::intptr_t>::max();
  const auto back = throughArchive(orbiqTaggerID("ABC", largest, true));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->isEqual(std::make_unique<orbiqTaggerID>("ABC", largest, true).get()));
  EXPECT_TRUE(decoded<orbiqTaggerID>([](KeyedArchiver& coder) {
                coder.encodeInteger(5, "orbiqTaggerID_isStreamTagger");
              })->isStreamTagger());
}

TEST(Authorization, AccessRule) {
  for (const RequestType type : {RequestTypeAudience, RequestTypeStreaming}) {
    const auto restricted = access(AccessModeRestricted);
    EXPECT_TRUE(restricted->canSendRequestFor(type));
    EXPECT_EQ(restricted->hitSuccessfullySent(), restricted);
    EXPECT_FALSE(restricted->canSendRequestFor(type));
    EXPECT_FALSE(access(AccessModeDenied)->canSendRequestFor(type));
    for (const AccessMode mode : {AccessModeFull, static_cast<AccessMode>(9)}) {
      EXPECT_TRUE(access(mode)->hitSuccessfullySent()->canSendRequestFor(type));
    }
  }
}

TEST(Authorization, AccessHost) {
  EXPECT_EQ(access(AccessModeFull, "B/")->host(), "B/S1");
  EXPECT_EQ(access(AccessModeFull, "")->host(), "S1");
  EXPECT_EQ(access(AccessModeFull, nullptr)->host(), nullptr);
  EXPECT_THROW(orbiqAccess(nullptr, AccessModeFull, ""), std::invalid_argument);
  EXPECT_NO_THROW(orbiqAccess(nullptr, AccessModeFull, nullptr));

  const auto stored = decoded<orbiqAccess>([](KeyedArchiver& coder) {
    coder.encodeString("S1", "orbiqAccess_serial");
    coder.encodeString("B/", "orbiqAccess_baseURL");
    coder.encodeString("elsewhere", "orbiqAccess_host");
    coder.encodeBoolean(true, "orbiqAccess_firstHitSuccessfullySent");
    coder.encodeInteger(1, "orbiqAccess_accessMode");
  });
  const auto back = throughArchive(*stored);
  EXPECT_EQ(back->host(), "elsewhere");
  EXPECT_EQ(back->copy()->host(), "B/S1") << "of the base URL";
  EXPECT_FALSE(back->copy()->canSendRequestFor(RequestTypeAudience));
}

TEST(Authorization, CopiesShareTheAccessAndDropTheDefaultFlag) {
  const auto session = orbiqSession::orbiqSessionWithSerial_withCmsVI("S1", "42");
  const auto restricted = access(AccessModeRestricted);
  const orbiqAuth auth(session, restricted, true);
  EXPECT_FALSE(auth.isDefaultValues());
  const auto copy = auth.copy();
  EXPECT_EQ(copy->currentSession(), session);
  const auto independent = restricted->copy();
  copy->currentAccess()->hitSuccessfullySent();
  EXPECT_FALSE(auth.currentAccess()->canSendRequestFor(RequestTypeAudience));
  EXPECT_TRUE(independent->canSendRequestFor(RequestTypeAudience));

  const auto flagged = decoded<orbiqAuth>(
      [](KeyedArchiver& coder) { coder.encodeBoolean(true, "orbiqAuth_defaultValues"); });
  EXPECT_TRUE(flagged->isDefaultValues());
  EXPECT_TRUE(throughArchive(*flagged)->isDefaultValues());
  EXPECT_FALSE(flagged->copy()->isDefaultValues());

  EXPECT_EQ(throughArchive(*session)->cmsVI(), "42");
  EXPECT_EQ(decoded<orbiqSession>([](KeyedArchiver& coder) {
              coder.encodeString("42", "orbiqSession_cmsVI");
            })->cmsVI(),
            nullptr);
}

/// With a value of its own in each field.
std::shared_ptr<orbiqRequest> failedRequest() {
  auto request = streamingRequest(SendingModeSerialWithStop);
  request->setCreationDate(Date{1});
  request->setLastFail(Date{2.5});
  request->setNumberOfFails(3);
  request->setStatus(RequestStatusFailed);
  request->setShouldRenewSessionAfter(true);
  request->setAuth(std::make_shared<orbiqAuth>(nullptr, access(AccessModeDenied), false));
  return request;
}

TEST(Request, ComesBackFromTheArchiveWithoutItsRenewFlag) {
  const auto request = failedRequest();
  const auto back = throughArchive(*request);
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->shouldRenewSessionAfter());
  back->setShouldRenewSessionAfter(true);
  EXPECT_EQ(archived(*back), archived(*request));
  EXPECT_TRUE(decoded<orbiqRequest>([](KeyedArchiver& coder) {
                coder.encodeBoolean(true, "orbiqRequest_shouldRenewSession");
              })->shouldRenewSessionAfter());
}

TEST(Request, EqualityAndMarkers) {
  const auto request = streamingRequest();
  EXPECT_TRUE(request->isEqual(request.get()));
  EXPECT_FALSE(request->isEqual(streamingRequest().get()));
  const auto marker = std::make_shared<orbiqClearCache>();
  EXPECT_TRUE(marker->isEqual(std::make_unique<orbiqClearCache>().get()));
  EXPECT_FALSE(marker->isEqual(request.get()));
  EXPECT_FALSE(request->isEqual(marker.get()));
  const auto copyOfMarker = marker->copy();
  EXPECT_FALSE(marker->isEqual(copyOfMarker.get()));
  EXPECT_NE(throughArchive(*marker), nullptr);
  // Whatever an archive has for it.
  const auto full = decoded<orbiqClearCache>([](KeyedArchiver& coder) {
    coder.encodeInteger(1, "orbiqRequest_requestType");
    coder.encodeString("ABC", "orbiqRequest_serial");
    coder.encodeBoolean(true, "orbiqRequest_shouldRenewSession");
  });
  EXPECT_EQ(full->description(), orbiqClearCache().description());
  EXPECT_FALSE(full->shouldRenewSessionAfter());
}

TEST(Request, Copy) {
  const auto request = failedRequest();
  const auto copy = request->copy();
  EXPECT_EQ(archived(*copy), archived(*request));
  EXPECT_EQ(copy->parameters(), request->parameters());
  EXPECT_EQ(copy->taggerID(), request->taggerID());
  EXPECT_NE(copy->auth(), request->auth());
  EXPECT_EQ(copy->auth()->currentAccess(), request->auth()->currentAccess());

  MutableString serial("ABC");
  request->setSerial(serial);
  const orbiqRequest shares({}, RequestTypeStreaming, SendingModeHost, serial, nullptr);
  const auto ofMutable = shares.copy();
  serial.setString("changed");
  EXPECT_EQ(request->serial(), "ABC");
  EXPECT_EQ(shares.serial(), "changed");
  EXPECT_EQ(ofMutable->serial(), "ABC");
}

TEST(Request, HashTakesEveryField) {
  const auto power = [](int exponent) {
    std::uintptr_t result = 1;
    while (exponent-- > 0) result *= 31;
    return result;
  };
  orbiqRequest request(std::make_shared<Parameters>(Parameters{{"k", "v"}, {"l", nullptr}}),
                       RequestTypeStreaming, static_cast<SendingMode>(7), "ABC", nullptr);
  request.setLastFail(Date{2.5});
  request.setCreationDate(Date{-1});
  request.setNumberOfFails(3);
  request.setStatus(RequestStatusFailed);
  const std::uintptr_t parameters = power(4) + power(3) * String("k").hash() +
                                    power(2) * String("v").hash() + power(1) * String("l").hash();
  EXPECT_EQ(request.hash(), power(6) + power(5) * parameters + power(4) * std::hash<double>()(2.5) +
                                power(3) * std::hash<double>()(-1) + power(2) * 3 + power(1) * 7 +
                                3);
}

TEST(Request, Hash) {
  const orbiqClearCache empty;
  EXPECT_EQ(empty.hash(), 887503681U);
  const auto copy = empty.copy();
  copy->setStatus(RequestStatusFailed);
  if constexpr (sizeof(std::uintptr_t) == 8) {
    // Folded to 32 bits and carried on as a signed number.
    copy->setNumberOfFails(0x1'8000'0000U);
    const auto folded = static_cast<std::uintptr_t>(std::intptr_t{INT32_MIN + 1});
    copy->setCreationDate(std::nullopt);
    EXPECT_EQ(copy->hash(), 887503681U + 961U * folded + 3U);
  }
}

TEST(Request, Description) {
  const auto request = streamingRequest(static_cast<SendingMode>(3));
  EXPECT_EQ(request->description(),
            "\"serial ABC - request type streaming - hote (null) - parameters {\n"
            "    cmsRK = 7;\n}\"");
  request->setAuth(std::make_shared<orbiqAuth>(nullptr, access(AccessModeFull), false));
  EXPECT_NE(request->description().find(" - hote http://b/S1 - "), std::string::npos);
  const auto toSerial = streamingRequest(SendingModeSerialWithStop);
  toSerial->setAuth(request->auth());
  EXPECT_NE(toSerial->description().find(" - hote  - "), std::string::npos);
  EXPECT_EQ(orbiqClearCache().description(),
            "\"serial (null) - request type audience - hote  - parameters (null)\"");
}

TEST(Request, Url) {
  for (const auto& [mode, expected] : {std::pair{SendingModeHost, "http://b/S1"},
                                       {static_cast<SendingMode>(6), "http://b/S1"},
                                       {SendingModeSerial, "S1"},
                                       {SendingModeSerialWithStop, "S1"}}) {
    const auto request = streamingRequest(mode);
    EXPECT_FALSE(request->url());
    request->setAuth(std::make_shared<orbiqAuth>(nullptr, access(AccessModeFull), false));
    EXPECT_EQ(request->url()->text(), expected);
  }
  const auto request = streamingRequest();
  request->setAuth(
      std::make_shared<orbiqAuth>(nullptr, access(AccessModeFull, "http://b /"), false));
  EXPECT_FALSE(request->url());
  const auto toSerial = streamingRequest(SendingModeSerial);
  toSerial->setAuth(std::make_shared<orbiqAuth>(
      nullptr, std::make_shared<orbiqAccess>(nullptr, AccessModeFull, nullptr), false));
  EXPECT_EQ(toSerial->url()->text(), "(null)");
}

TEST(Request, StopAndRank) {
  const auto request = streamingRequest();
  const auto before = request->parameters();
  request->transformToStop();
  request->transformToStop();
  EXPECT_EQ(*request->parameters(), (Parameters{{"cmsPS", "12"}, {"cmsRK", "9"}}));
  EXPECT_EQ(*before, (Parameters{{"cmsRK", "7"}}));
  request->setTheRank(-1);
  EXPECT_EQ(request->parameters()->at("cmsRK"), "-1");
  for (const auto& [rank, next] : {std::pair{" +41x", "42"},
                                   {"x", "1"},
                                   {"-9", "-8"},
                                   {"99999999999999999999", "-9223372036854775808"},
                                   {"-99999999999999999999", "-9223372036854775807"}}) {
    const orbiqRequest other(std::make_shared<const Parameters>(Parameters{{"cmsRK", rank}}),
                             RequestTypeStreaming, SendingModeHost, "ABC", nullptr);
    const auto stop = other.copy();
    stop->transformToStop();
    EXPECT_EQ(stop->parameters()->at("cmsRK"), next);
  }
  const auto marker = orbiqClearCache().copy();
  marker->transformToStop();
  EXPECT_EQ(marker->parameters(), nullptr);
  EXPECT_EQ(request->urlEncode("a-B.9_~ &/\u00e9"), "a-B.9_~%20%26%2F%C3%A9");
}

}  // namespace
}  // namespace orbiq::test
