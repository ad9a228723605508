#include "orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h"

#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kTaggerIDNames[] = {"orbiqTaggerID", "NSObject"};

}  // namespace

constinit const orbiq::ArchivedClass orbiqTaggerID::kArchivedClass{kTaggerIDNames,
                                                                   orbiq::decodeAs<orbiqTaggerID>};

orbiqTaggerID::orbiqTaggerID(orbiq::String serial, std::intptr_t partialID, bool isStreamTagger)
    : _serial(std::move(serial)), _partialID(partialID), _isStreamTagger(isStreamTagger) {}

orbiqTaggerID::orbiqTaggerID(orbiq::KeyedUnarchiver& coder)
    : _serial(coder.decodeString("orbiqTaggerID_serial")),
      _partialID(static_cast<std::intptr_t>(coder.decodeInteger("orbiqTaggerID_partialID"))),
      _isStreamTagger(coder.decodeInteger("orbiqTaggerID_isStreamTagger") != 0) {}

void orbiqTaggerID::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeString(_serial, "orbiqTaggerID_serial");
  coder.encodeInteger(_partialID, "orbiqTaggerID_partialID");
  // An integer, as in the archives of earlier versions.
  coder.encodeInteger(_isStreamTagger ? 1 : 0, "orbiqTaggerID_isStreamTagger");
}

std::shared_ptr<orbiqTaggerID> orbiqTaggerID::copy() const {
  return std::make_shared<orbiqTaggerID>(_serial, _partialID, _isStreamTagger);
}

bool orbiqTaggerID::isEqual(const orbiq::Object* other) const {
  // No shortcut for one and the same object: without a serial it is unequal to itself, on purpose.
  const auto* const identity = dynamic_cast<const orbiqTaggerID*>(other);
  return identity != nullptr && _serial.isEqualToString(identity->_serial) &&
         _partialID == identity->_partialID && _isStreamTagger == identity->_isStreamTagger;
}

std::uintptr_t orbiqTaggerID::hash() const {
  std::uintptr_t result = orbiq::foldHash(1, _serial.hash());
  result = orbiq::foldHash(result, static_cast<std::uintptr_t>(_partialID));
  return orbiq::foldHash(result, orbiq::hashOf(_isStreamTagger));
}
