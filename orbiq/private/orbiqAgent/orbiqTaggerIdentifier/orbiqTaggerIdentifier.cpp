#include "orbiq/private/orbiqAgent/orbiqTaggerIdentifier/orbiqTaggerIdentifier.h"

std::shared_ptr<orbiqTaggerIdentifier> orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(
    const orbiq::String& serial) {
  auto identifier = std::make_shared<orbiqTaggerIdentifier>();
  identifier->setSerial(serial);
  return identifier;
}

std::shared_ptr<orbiqTaggerIdentifier> orbiqTaggerIdentifier::copy() const {
  return orbiqTaggerIdentifierWithSerial(_serial);
}

bool orbiqTaggerIdentifier::isEqual(const orbiq::Object* other) const {
  const auto* const identifier = dynamic_cast<const orbiqTaggerIdentifier*>(other);
  return identifier != nullptr && _serial == identifier->_serial;
}

std::uintptr_t orbiqTaggerIdentifier::hash() const { return orbiq::foldHash(1, _serial.hash()); }
