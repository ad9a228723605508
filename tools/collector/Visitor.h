#pragma once

#include <httplib.h>

namespace orbiq::collector {

/// Whether a request comes from a web page of another origin, or to a name that is not loopback's
/// (which such a page may have pointed here). Programs that are no browsers are never foreign.
bool isForeign(const httplib::Request& request, int port);

}  // namespace orbiq::collector
