#pragma once

#include <cstdint>
#include <memory>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/text/String.h"

/// The identity of a tagger: it travels with every request, and authorizations are kept by it.
/// Not to be changed while another thread reads it.
class ORBIQ_EXPORT orbiqTaggerID final : public orbiq::Archivable {
 public:
  /// Stores the three values as given; the serial is shared, not copied.
  orbiqTaggerID(orbiq::String serial, std::intptr_t partialID, bool isStreamTagger);
  /// Reads the identity out of an archive; what is missing there is null, 0 or false.
  explicit orbiqTaggerID(orbiq::KeyedUnarchiver& coder);

  /// The customer account; may be null.
  orbiq::String serial() const { return _serial; }
  /// Shares the text.
  void setSerial(orbiq::String serial) { _serial = std::move(serial); }
  /// Tells taggers of one serial apart; audience taggers all have the largest number.
  std::intptr_t partialID() const { return _partialID; }
  /// Makes it another identity.
  void setPartialID(std::intptr_t partialID) { _partialID = partialID; }
  /// False for an audience tagger.
  bool isStreamTagger() const { return _isStreamTagger; }
  /// Makes it another identity.
  void setIsStreamTagger(bool isStreamTagger) { _isStreamTagger = isStreamTagger; }

  /// An identity of the same values that shares the serial.
  std::shared_ptr<orbiqTaggerID> copy() const;

  /// Equal serial, partial ID and stream flag. An identity without a serial is equal to nothing,
  /// not even to itself.
  bool isEqual(const orbiq::Object* other) const override;
  /// Of all three values.
  std::uintptr_t hash() const override;

  /// How archives name the class.
  static const orbiq::ArchivedClass kArchivedClass;
  const orbiq::ArchivedClass& archivedClass() const override { return kArchivedClass; }
  /// Writes all fields.
  void encodeWithCoder(orbiq::KeyedArchiver& coder) const override;

 private:
  orbiq::String _serial;
  std::intptr_t _partialID = 0;
  bool _isStreamTagger = false;
};
