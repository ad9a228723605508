#include "tools/doctor/Answer.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "tools/doctor/Shown.h"

namespace orbiq::doctor {
namespace {

constexpr std::array kFields{"access", "host", "cmsVI"};

std::vector<std::string_view> piecesOf(std::string_view body) {
  std::vector<std::string_view> pieces;
  while (!body.empty()) {
    const std::size_t end = std::min(body.find('|'), body.size());
    pieces.push_back(body.substr(0, end));
    body.remove_prefix(std::min(end + 1, body.size()));
  }
  return pieces;
}

bool isField(std::string_view key) {
  return std::ranges::any_of(kFields, [key](const char* field) { return key == field; });
}

/// What the server meant and the library reads otherwise.
void examineForm(std::string_view body, Finding& finding) {
  std::vector<std::string_view> seen;
  for (const std::string_view piece : piecesOf(body)) {
    const std::size_t equals = piece.find('=');
    if (equals == std::string_view::npos) {
      finding.warn("piece-without-equals",
                   "The piece " + inQuotes(piece) +
                       " has no \"=\", and is "
                       "ignored.",
                   "Send pieces of the form key=value, with \"|\" between them.");
      continue;
    }
    const std::string_view key = piece.substr(0, equals);
    if (!isField(key)) {
      finding.isFine("The field " + inQuotes(key) + " is ignored, as every field but three.");
      continue;
    }
    if (std::ranges::find(seen, key) != seen.end()) {
      finding.warn("field-repeated",
                   "The field " + inQuotes(key) + " comes twice; the last counts.",
                   "Send it once.");
    }
    seen.push_back(key);
    if (piece.find('=', equals + 1) != std::string_view::npos) {
      finding.warn(
          "value-cut",
          "The value of " + inQuotes(key) + " is cut at its \"=\", and so the rest is lost.",
          "Name a host without \"=\".");
    }
  }
}

void examineValue(const std::string& key, const std::string& value, Finding& finding) {
  if (value.empty() && key != "host") {
    finding.warn("field-empty",
                 "The field " + inQuotes(key) + " is empty, which counts as present.",
                 "Give it a value.");
  }
  if (value.find_first_of("\r\n\t ") != std::string::npos) {
    finding.warn("field-has-blanks",
                 "The value of " + inQuotes(key) +
                     " has blanks or a line's end in it; nothing is "
                     "trimmed.",
                 "Send no blanks around a value, and no line's end behind the last one.");
  }
}

void examineMode(const std::string& access, Finding& finding) {
  finding.isFine("The field access is " + inQuotes(access) + ".");
  if (orbiqAuthManager::accessModeFromString(access) != AccessModeFull) return;
  std::string lower = access;
  std::ranges::transform(lower, lower.begin(), asciiLowerCase);
  for (const char* const meant : {"denied", "restricted"}) {
    if (lower.find(meant) == std::string::npos) continue;
    finding.warn(
        "access-misspelt",
        inQuotes(access) + " is not exactly \"" + meant + "\", so it counts as full access.",
        "Send the word in lower case and with nothing around it.");
  }
}

void examineHost(const std::string& host, Finding& finding) {
  if (host.empty()) {
    return finding.fail("host-empty",
                        "The field host is empty, so a hit's URL would be the bare account, where "
                        "nothing can be sent.",
                        "Send the URL to which the account is appended.");
  }
  finding.isFine("The field host is " + inQuotes(shownUrl(host)) + ".");
  if (std::string_view("/=?&").find(host.back()) != std::string_view::npos) return;
  finding.warn("host-without-slash",
               "The host does not end in \"/\", and the account follows it with nothing between.",
               "End the host with \"/\", unless that is meant.");
}

void examineMissing(const AuthFields& fields, int status, std::string_view body, Finding& finding) {
  std::string missing;
  for (const char* const field : kFields) {
    if (!fields.contains(field)) missing += (missing.empty() ? "" : ", ") + std::string(field);
  }
  const std::string text = "The answer with status " + std::to_string(status) + " lacks " +
                           missing + ", so it is no authorization and a fallback stands in for it";
  if (status != 200) {
    return finding.fail("status-" + std::to_string(status), text + ".",
                        status == 404 ? "See whether the server's URL is right, to its last \"/\", "
                                        "and whether the server knows the account."
                                      : "See what the server logs of this request.");
  }
  const bool isPage = body.find('<') < 16;
  finding.fail("fields-missing",
               text + (isPage ? ". It looks like a web page; a portal may stand before the server."
                              : ": " + std::to_string(body.size()) + " bytes."),
               "Send access=...|host=...|cmsVI=... in UTF-8.");
}

}  // namespace

void examineAnswer(const HttpResponse& response, const std::string& body, Finding& finding) {
  if (!isValidUtf8(body)) {
    return finding.fail("not-utf-8", "The answer is not UTF-8, and so has no fields.",
                        "Send it in UTF-8.");
  }
  const AuthFields fields = parseAuthAnswer(body);
  const bool isWhole =
      std::ranges::all_of(kFields, [&](const char* field) { return fields.contains(field); });
  if (!isWhole) return examineMissing(fields, response.status, body, finding);
  if (response.status == 200) {
    finding.isFine("The status is 200.");
  } else {
    finding.warn("status-" + std::to_string(response.status),
                 "The status is " + std::to_string(response.status) +
                     ". The answer counts all the same, as its fields alone decide.",
                 "Send status 200 with an authorization.");
  }
  examineForm(body, finding);
  for (const auto& [key, value] : fields) {
    if (isField(key)) examineValue(key, value, finding);
  }
  examineMode(fields.find("access")->second, finding);
  examineHost(fields.find("host")->second, finding);
  finding.isFine("The field cmsVI is there; its length is " +
                 std::to_string(fields.find("cmsVI")->second.size()) + ".");
}

}  // namespace orbiq::doctor
