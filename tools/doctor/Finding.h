#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace orbiq::doctor {

/// From harmless to harmful.
enum class Level { kSkipped, kFine, kWarning, kFailure };

/// One thing that was found.
struct Remark {
  Level level = Level::kFine;
  std::string cause;   ///< the fault's name, for programs; empty if there is none
  std::string text;    ///< a sentence
  std::string advice;  ///< what to do; empty if there is nothing
};

/// What a step found, in the order in which it was found.
class Finding {
 public:
  void skip(std::string text) { _remarks.push_back({Level::kSkipped, {}, std::move(text), {}}); }
  void isFine(std::string text) { _remarks.push_back({Level::kFine, {}, std::move(text), {}}); }
  /// Something that does not by itself keep a hit from arriving.
  void warn(std::string cause, std::string text, std::string advice) {
    _remarks.push_back({Level::kWarning, std::move(cause), std::move(text), std::move(advice)});
  }
  /// Something that keeps a hit from arriving, or from being saved.
  void fail(std::string cause, std::string text, std::string advice) {
    _remarks.push_back({Level::kFailure, std::move(cause), std::move(text), std::move(advice)});
  }

  const std::vector<Remark>& remarks() const { return _remarks; }
  /// The worst of its remarks.
  Level level() const {
    Level worst = Level::kSkipped;
    for (const Remark& remark : _remarks) worst = std::max(worst, remark.level);
    return worst;
  }

 private:
  std::vector<Remark> _remarks;
};

}  // namespace orbiq::doctor
