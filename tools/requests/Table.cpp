#include "tools/requests/Table.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string_view>

#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "tools/requests/Text.h"

namespace orbiq::requests {
namespace {

constexpr std::size_t kWidestCell = 48;
constexpr std::size_t kWidestColumn = 200;
constexpr std::string_view kNone = "-";

constexpr std::string_view kBold = "\033[1m";
constexpr std::string_view kDim = "\033[2m";
constexpr std::string_view kRed = "\033[31m";
constexpr std::string_view kYellow = "\033[33m";

constexpr std::array<std::string_view, 9> kHeads{"#",      "KIND",    "SERIAL", "URL",  "CREATED",
                                                 "ACCESS", "SESSION", "PARAMS", "FAILS"};
using Row = std::array<std::string, kHeads.size()>;

std::string kindOf(const Request& request) {
  switch (request.kind) {
    case Request::Kind::kAudience:
      return "audience";
    case Request::Kind::kStreaming:
      return "streaming";
    case Request::Kind::kMarker:
      return "clear-cache marker";
    case Request::Kind::kUnknown:
      break;
  }
  return request.className.empty() ? "damaged" : "unknown: " + request.className;
}

std::string urlOf(const Request& request) {
  const std::optional<std::string> target = request.target();
  if (!target) return std::string(kNone);
  const std::optional<Url> url = Url::fromText(*target);
  if (!url) return *target + " (no URL)";
  return url->scheme().empty() ? *target + " (no address)" : *target;
}

std::string accessTextOf(const Request& request) {
  if (!request.hasAuthorization) return std::string(kNone);
  if (!request.access) return "none";
  if (request.access->isFallback()) return "fallback";
  switch (request.access->mode.value_or(AccessModeFull)) {
    case AccessModeFull:
      return "full";
    case AccessModeRestricted:
      return request.access->firstHitSent ? "restricted, used" : "restricted";
    case AccessModeDenied:
      return "denied";
    default:
      return "full (" + std::to_string(*request.access->mode) + ")";
  }
}

std::string createdOf(const Request& request, double now) {
  if (!request.createdAt) return std::string(kNone);
  return localTime(*request.createdAt) + " (" + distance(*request.createdAt, now) + ")";
}

Row rowOf(const Request& request, std::size_t position, const TableStyle& style) {
  const std::string none(kNone);
  Row row{std::to_string(position),
          kindOf(request),
          request.serial.value_or(none),
          urlOf(request),
          createdOf(request, style.now),
          accessTextOf(request),
          request.session ? request.session->identifier.value_or(none) : none,
          request.parameters ? std::to_string(request.parameters->size()) : none,
          std::to_string(request.numberOfFails)};
  for (std::string& cell : row) {
    // Cut first: escaping takes its time for a text that is hardly shown.
    if (!style.isWide) cell.resize(utf8PrefixBytes(cell, kWidestCell + 1));
    cell = escaped(cell);
    if (!style.isWide) cell = shortened(std::move(cell), kWidestCell);
  }
  return row;
}

class TablePrinter {
 public:
  TablePrinter(std::ostream& out, const TableStyle& style) : _out(out), _style(style) {}

  void line(std::string_view colour, std::string_view text) {
    if (_style.isColoured) _out << colour;
    _out << text;
    if (_style.isColoured) _out << "\033[0m";
    _out << '\n';
  }

  void rows(const std::vector<Request>& requests) {
    Row heads;
    std::ranges::copy(kHeads, heads.begin());
    std::vector<Row> rows;
    rows.reserve(requests.size());
    for (const Request& request : requests) {
      rows.push_back(rowOf(request, rows.size() + 1, _style));
    }
    std::array<std::size_t, kHeads.size()> widths{};
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = kHeads[i].size();
      for (const Row& row : rows) widths[i] = std::max(widths[i], widthOf(row[i]));
      widths[i] = std::min(widths[i], kWidestColumn);
    }
    line(kBold, joined(heads, widths));
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const bool isUnknown = requests[i].kind == Request::Kind::kUnknown;
      line(isUnknown ? kRed : std::string_view(), joined(rows[i], widths));
    }
  }

 private:
  static std::string joined(const Row& row, const std::array<std::size_t, kHeads.size()>& widths) {
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) {
        const std::size_t width = std::min(widthOf(row[i]), widths[i]);  // longer ones run over
        text.append(widths[i] + 2 - width, ' ');
      }
    }
    return text;
  }

  std::ostream& _out;
  const TableStyle& _style;
};

std::string useText(const Use& use) {
  switch (use.state) {
    case Use::State::kFree:
      return "not in use";
    case Use::State::kInUse:
      return use.process == 0 ? "in use by a running process"
                              : "in use by process " + std::to_string(use.process);
    case Use::State::kUnknown:
      break;
  }
  return "whether it is in use cannot be seen";
}

std::string faultText(const Fault& fault) {
  std::string text = "offset " + std::to_string(fault.offset);
  if (fault.object) text += ", object " + std::to_string(*fault.object);
  return text + ": expected " + escaped(fault.expected);
}

std::string counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

void printTable(std::ostream& out, const std::string& path, const Snapshot& snapshot,
                const RequestsArchive& archive, const TableStyle& style) {
  TablePrinter printer(out, style);
  const std::string saved = snapshot.changedAt
                                ? ", saved " + localTime(*snapshot.changedAt) + " (" +
                                      distance(*snapshot.changedAt, style.now) + ")"
                                : "";
  printer.line(kBold, escaped(path) + ": " + counted(archive.requests().size(), "request") + ", " +
                          counted(archive.size(), "byte") + saved + ", " + useText(snapshot.use));
  if (!archive.requests().empty()) printer.rows(archive.requests());
  if (!snapshot.isSettled) {
    printer.line(kYellow, "The file kept changing: what is shown may be a mixture.");
  }
  for (const std::string& note : archive.notes()) printer.line(kDim, "Note: " + escaped(note));
  if (archive.faults().isEmpty()) return;
  printer.line(kRed, archive.isLoadable() ? "Damaged, but an application would load it:"
                                          : "An application would load nothing from this file:");
  for (const Fault& fault : archive.faults().kept()) printer.line(kRed, "  " + faultText(fault));
  if (const std::size_t others = archive.faults().others(); others > 0) {
    printer.line(kRed, "  and " + counted(others, "fault") + " more");
  }
}

}  // namespace orbiq::requests
