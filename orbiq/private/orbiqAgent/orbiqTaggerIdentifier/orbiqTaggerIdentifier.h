#pragma once

#include <memory>

#include "orbiq/services/platform/base/Object.h"
#include "orbiq/services/platform/text/String.h"

/// A tagger's identity by its serial alone; the key of the agent's registry. Never persisted.
class orbiqTaggerIdentifier final : public orbiq::Object {
 public:
  /// An identifier with a copy of the serial, which may be null.
  static std::shared_ptr<orbiqTaggerIdentifier> orbiqTaggerIdentifierWithSerial(
      const orbiq::String& serial);

  /// Without a serial.
  orbiqTaggerIdentifier() = default;

  orbiq::String serial() const { return _serial; }
  /// Keeps a copy of its own.
  void setSerial(const orbiq::String& serial) { _serial = serial.copy(); }

  /// An identifier of the same serial.
  std::shared_ptr<orbiqTaggerIdentifier> copy() const;

  /// Equal serials; unlike `orbiqTaggerID`, two identifiers without a serial are equal.
  bool isEqual(const orbiq::Object* other) const override;
  /// Of the serial.
  std::uintptr_t hash() const override;

 private:
  orbiq::String _serial;
};
