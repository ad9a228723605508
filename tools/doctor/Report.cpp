#include "tools/doctor/Report.h"

#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/requests/Text.h"

namespace orbiq::doctor {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kIndent = 10;

struct Look {
  const char* word;
  const char* colour;
};

Look lookOf(Level level) {
  switch (level) {
    case Level::kFine:
      return {"ok", "\033[32m"};
    case Level::kWarning:
      return {"warning", "\033[33m"};
    case Level::kFailure:
      return {"FAILED", "\033[1;31m"};
    default:
      return {"skipped", "\033[2m"};
  }
}

const char* nameOf(Level level) {
  constexpr const char* kNames[] = {"skipped", "fine", "warning", "failure"};
  return kNames[static_cast<int>(level)];
}

std::string coloured(const std::string& text, const char* colour, bool isColoured) {
  return isColoured ? colour + text + "\033[0m" : text;
}

/// Lines of at most 80 columns, the first one behind the mark.
std::string wrapped(const std::string& mark, const std::string& escapedText) {
  const std::string margin(mark.size(), ' ');
  std::string lines;
  std::string line = mark;
  std::string_view rest = escapedText;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(' '), rest.size());
    const std::string_view word = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    const bool isFirst = line.size() == margin.size();
    if (!isFirst && requests::widthOf(line) + 1 + requests::widthOf(word) > kColumns) {
      lines += line + "\n";
      line = margin;
    } else if (!isFirst) {
      line += ' ';
    }
    line += word;
  }
  return lines + line + "\n";
}

const Walked* firstFailed(const std::vector<Walked>& walked) {
  for (const Walked& each : walked) {
    if (each.finding.level() == Level::kFailure) return &each;
  }
  return nullptr;
}

std::size_t warningsIn(const std::vector<Walked>& walked) {
  std::size_t count = 0;
  for (const Walked& each : walked) {
    for (const Remark& remark : each.finding.remarks()) count += remark.level == Level::kWarning;
  }
  return count;
}

const Remark& failureOf(const Finding& finding) {
  const auto& remarks = finding.remarks();
  return *std::ranges::find(remarks, Level::kFailure, &Remark::level);
}

}  // namespace

int exitStatusOf(const std::vector<Walked>& walked) {
  const Walked* const failed = firstFailed(walked);
  return failed != nullptr ? failed->step->exitStatus : 0;
}

std::string asText(const Walked& walked, bool isColoured) {
  const std::string margin(kIndent, ' ');
  const Look look = lookOf(walked.finding.level());
  std::string word = look.word;
  word.resize(kIndent, ' ');
  std::string text = coloured(word, look.colour, isColoured) + walked.step->title + "\n";
  for (const Remark& remark : walked.finding.remarks()) {
    const bool isFault = remark.level == Level::kWarning || remark.level == Level::kFailure;
    const std::string lines =
        wrapped(isFault ? margin + "! " : margin, requests::escaped(remark.text));
    text += isFault ? coloured(lines, lookOf(remark.level).colour, isColoured) : lines;
    if (!remark.advice.empty()) text += wrapped(margin + "> ", requests::escaped(remark.advice));
  }
  return text;
}

std::string summaryOf(const std::vector<Walked>& walked, bool isColoured) {
  std::string text = "\n";
  for (const Walked& each : walked) {
    if (each.finding.level() != Level::kFailure) continue;
    const std::string sentence =
        std::string("Failed at \"") + each.step->title + "\": " + failureOf(each.finding).text;
    text += coloured(wrapped({}, requests::escaped(sentence)), lookOf(Level::kFailure).colour,
                     isColoured);
  }
  if (firstFailed(walked) != nullptr) return text;
  const std::size_t warnings = warningsIn(walked);
  return text + "Nothing failed" +
         (warnings == 0   ? ".\n"
          : warnings == 1 ? "; there is 1 warning.\n"
                          : "; there are " + std::to_string(warnings) + " warnings.\n");
}

std::string asJson(const std::vector<Walked>& walked) {
  nlohmann::ordered_json steps = nlohmann::ordered_json::array();
  for (const Walked& each : walked) {
    nlohmann::ordered_json remarks = nlohmann::ordered_json::array();
    for (const Remark& remark : each.finding.remarks()) {
      nlohmann::ordered_json json = {{"level", nameOf(remark.level)}, {"text", remark.text}};
      if (!remark.cause.empty()) json["cause"] = remark.cause;
      if (!remark.advice.empty()) json["advice"] = remark.advice;
      remarks.push_back(std::move(json));
    }
    steps.push_back({{"step", each.step->name},
                     {"level", nameOf(each.finding.level())},
                     {"remarks", std::move(remarks)}});
  }
  nlohmann::ordered_json report = {{"exitStatus", exitStatusOf(walked)}, {"cause", nullptr}};
  if (const Walked* const failed = firstFailed(walked)) {
    report["cause"] = failureOf(failed->finding).cause;
  }
  report["steps"] = std::move(steps);
  return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace orbiq::doctor
