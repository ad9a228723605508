#pragma once

#include <atomic>
#include <utility>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/text/String.h"

/// The settings that every tagger has. Abstract: the application uses `orbiqAudienceTagger`.
///
/// A text that is set is shared, not copied, and null clears it. Set them from one thread at a
/// time; a hit takes the values of the moment at which `sendHit` runs.
class ORBIQ_EXPORT orbiqTagger {
 public:
  virtual ~orbiqTagger();
  orbiqTagger(const orbiqTagger&) = delete;
  orbiqTagger& operator=(const orbiqTagger&) = delete;

  /// The application's version; may be null. Any thread.
  static orbiq::String orbiqVersion();

  /// The customer account, set once at creation.
  orbiq::String serial() const { return _serial; }
  /// Reserved; always null.
  orbiq::String customerData() const { return _customerData; }
  /// Reserved; always false, and never asked.
  bool canSend() const { return _canSend; }

  /// Whether each hit's parameters hold the advertising identifier. They are saved and logged, and
  /// this version sends none of them. Any thread.
  bool useIDFA() const { return _useIDFA.load(std::memory_order_relaxed); }
  /// Takes effect at the next `sendHit`. Any thread.
  void setUseIDFA(bool useIDFA) { _useIDFA.store(useIDFA, std::memory_order_relaxed); }

  /// The tagger's own copy of the threshold.
  orbiq::LoggingMode loggingMode() const { return _loggingMode; }
  /// Sets the threshold below which log lines are not printed, for the whole library: the last call
  /// counts, on any tagger or on `orbiqLogger`. The first tagger starts the library: to see what
  /// goes wrong there, call `orbiqLogger::setLoggingMode` before.
  void setLoggingMode(orbiq::LoggingMode mode);

  /// Free texts. They are kept and returned, and this version sends none of them.
  /// @{
  orbiq::String theNewLevel1() const { return _newLevel1; }
  void setNewLevel1(orbiq::String level) { _newLevel1 = std::move(level); }
  orbiq::String theNewLevel2() const { return _newLevel2; }
  void setNewLevel2(orbiq::String level) { _newLevel2 = std::move(level); }
  orbiq::String theNewLevel3() const { return _newLevel3; }
  void setNewLevel3(orbiq::String level) { _newLevel3 = std::move(level); }
  orbiq::String theNewLevel4() const { return _newLevel4; }
  void setNewLevel4(orbiq::String level) { _newLevel4 = std::move(level); }
  orbiq::String theNewLevel5() const { return _newLevel5; }
  void setNewLevel5(orbiq::String level) { _newLevel5 = std::move(level); }
  orbiq::String theNewLevel6() const { return _newLevel6; }
  void setNewLevel6(orbiq::String level) { _newLevel6 = std::move(level); }
  orbiq::String theNewLevel7() const { return _newLevel7; }
  void setNewLevel7(orbiq::String level) { _newLevel7 = std::move(level); }
  orbiq::String theNewLevel8() const { return _newLevel8; }
  void setNewLevel8(orbiq::String level) { _newLevel8 = std::move(level); }
  orbiq::String theNewLevel9() const { return _newLevel9; }
  void setNewLevel9(orbiq::String level) { _newLevel9 = std::move(level); }
  orbiq::String theNewLevel10() const { return _newLevel10; }
  void setNewLevel10(orbiq::String level) { _newLevel10 = std::move(level); }
  orbiq::String theNewLevel11() const { return _newLevel11; }
  void setNewLevel11(orbiq::String level) { _newLevel11 = std::move(level); }
  /// @}

  /// Media fields and a free text. They are kept and returned, and this version sends none of them.
  /// @{
  orbiq::String mediaContentId() const { return _mediaContentId; }
  void setMediaContentId(orbiq::String value) { _mediaContentId = std::move(value); }
  orbiq::String mediaDiffMode() const { return _mediaDiffMode; }
  void setMediaDiffMode(orbiq::String value) { _mediaDiffMode = std::move(value); }
  orbiq::String mediaChannel() const { return _mediaChannel; }
  void setMediaChannel(orbiq::String value) { _mediaChannel = std::move(value); }
  orbiq::String netMeasurement() const { return _netMeasurement; }
  void setNetMeasurement(orbiq::String value) { _netMeasurement = std::move(value); }
  /// @}

 protected:
  /// Every field zero; the defaults of a usable tagger come from its own class.
  orbiqTagger() = default;

  /// @cond
  // What the getters of the same names return.
  orbiq::String _serial;
  orbiq::String _customerData;
  bool _canSend = false;
  std::atomic<bool> _useIDFA{false};
  orbiq::LoggingMode _loggingMode = orbiq::LoggingModeInfo;
  /// @endcond

 private:
  orbiq::String _newLevel1;
  orbiq::String _newLevel2;
  orbiq::String _newLevel3;
  orbiq::String _newLevel4;
  orbiq::String _newLevel5;
  orbiq::String _newLevel6;
  orbiq::String _newLevel7;
  orbiq::String _newLevel8;
  orbiq::String _newLevel9;
  orbiq::String _newLevel10;
  orbiq::String _newLevel11;
  orbiq::String _mediaContentId;
  orbiq::String _mediaDiffMode;
  orbiq::String _mediaChannel;
  orbiq::String _netMeasurement;
};
