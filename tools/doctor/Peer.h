#pragma once

#include <string>

#include "orbiq/services/platform/text/Url.h"
#include "tools/doctor/Finding.h"
#include "tools/doctor/Probe.h"

namespace orbiq::doctor {

/// What can be said of a server before anything is asked of it. Each adds what it found.
/// @{
void examineNameOf(const Url& url, const Way& way, Finding& finding);
void examineConnectionTo(const Way& way, const Connected& connected, Finding& finding);
void examineTlsOf(const Url& url, const Connected& connected, const std::string& caBundle,
                  Finding& finding);
/// @}

}  // namespace orbiq::doctor
