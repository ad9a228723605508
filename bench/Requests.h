#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"

namespace orbiq::bench {

/// Requests as the queue holds them: keys, common texts, identity, session and access are shared,
/// authorizations copied.
class Requests {
 public:
  std::shared_ptr<orbiqRequest> next() {
    const std::uint64_t number = _count++;
    const bool isStreaming = number % 2 == 1;
    Parameters parameters;
    parameters.reserve(7);
    if (isStreaming) {
      parameters.emplace(_stateKey, "2");
      parameters.emplace(_rankKey, std::to_string(number));
    }
    parameters.emplace(_didKey, _did);
    parameters.emplace(_nKey, std::to_string(100'000'000 + number * 104'729));
    parameters.emplace(_serialKey, _serial);
    parameters.emplace(_tnKey, _tagName);
    parameters.emplace(_vKey, _version);
    auto request =
        std::make_shared<orbiqRequest>(std::make_shared<const Parameters>(std::move(parameters)),
                                       isStreaming ? RequestTypeStreaming : RequestTypeAudience,
                                       SendingModeHost, _serial, isStreaming ? _stream : _audience);
    request->setAuth(_auth->copy());
    return request;
  }

 private:
  std::uint64_t _count = 0;
  const String _stateKey = String::lasting("cmsPS"), _rankKey = String::lasting("cmsRK"),
               _didKey = String::lasting("did"), _nKey = String::lasting("n"),
               _serialKey = String::lasting("serial"), _tnKey = String::lasting("tn"),
               _vKey = String::lasting("v");
  const String _did = "6D92078A-8246-4BA4-AE5B-76104861E7DC";
  const String _serial = "241041208600";
  const String _tagName = "on-ios";
  const String _version = "1.0";
  const std::shared_ptr<orbiqTaggerID> _audience =
      std::make_shared<orbiqTaggerID>(_serial, INTPTR_MAX, false);
  const std::shared_ptr<orbiqTaggerID> _stream = std::make_shared<orbiqTaggerID>(_serial, 3, true);
  const std::shared_ptr<orbiqAuth> _auth = orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI(_serial, "2817404411"),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
          _serial, AccessModeFull, "https://hits.example/audience/collect/"),
      false);
};

/// How many requests the file holds; no value if it does not open.
inline std::optional<std::size_t> savedIn(const std::string& path) {
  const ArchivedClass* const classes[] = {&orbiqRequest::kArchivedClass,
                                          &orbiqClearCache::kArchivedClass};
  const auto requests =
      KeyedUnarchiver::unarchiveArray(readFile(path, SIZE_MAX).value_or(""), classes);
  return requests ? std::optional(requests->size()) : std::nullopt;
}

}  // namespace orbiq::bench
