#include "tools/collector/Page.h"

#include <stdexcept>
#include <string>

namespace orbiq::collector {
namespace {

const char* typeOf(std::string_view name) {
  if (name.ends_with(".html")) return "text/html; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  if (name.ends_with(".json")) return "application/json";
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".svg")) return "image/svg+xml";
  throw std::logic_error("no type for " + std::string(name));
}

void serveAt(httplib::Server& server, const std::string& path, const PageFile& file) {
  server.Get(path, [file, type = typeOf(file.name)](const auto&, auto& response) {
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                        "connect-src 'self'; base-uri 'none'; form-action 'none'; "
                        "frame-ancestors 'none'");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cross-Origin-Resource-Policy", "same-origin");
    response.set_header("Cache-Control", "no-cache");
    // A browser would keep several connections, each with a thread of the server.
    response.set_header("Connection", "close");
    response.set_content(file.content.data(), file.content.size(), type);
  });
}

}  // namespace

void addPage(httplib::Server& server) {
  for (const PageFile& file : pageFiles()) {
    if (file.name == "index.html") serveAt(server, "/", file);
    if (file.name == "favicon.svg") serveAt(server, "/favicon.ico", file);
    serveAt(server, std::string(file.name == "openapi.json" ? "/api/" : "/").append(file.name),
            file);
  }
}

}  // namespace orbiq::collector
