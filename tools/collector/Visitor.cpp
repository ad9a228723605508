#include "tools/collector/Visitor.h"

#include <algorithm>
#include <array>
#include <string>

namespace orbiq::collector {
namespace {

bool isOwnHost(const std::string& host, int port) {
  constexpr std::array kNames{"127.0.0.1", "localhost", "[::1]"};
  const std::string suffix = std::string(":").append(std::to_string(port));
  return std::any_of(kNames.begin(), kNames.end(), [&](const std::string& name) {
    return host == name + suffix || (port == 80 && host == name);
  });
}

}  // namespace

bool isForeign(const httplib::Request& request, int port) {
  const std::string host = request.get_header_value("Host");
  if (!isOwnHost(host, port)) return true;
  if (request.has_header("Origin") && request.get_header_value("Origin") != "http://" + host) {
    return true;
  }
  const std::string site = request.get_header_value("Sec-Fetch-Site");
  return !site.empty() && site != "same-origin" && site != "none";
}

}  // namespace orbiq::collector
