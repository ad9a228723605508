#pragma once

#include <string>

#include "orbiq/services/platform/http/HttpClient.h"
#include "tools/doctor/Finding.h"

namespace orbiq::doctor {

/// What the library would read in an answer, and what is odd in it.
void examineAnswer(const HttpResponse& response, const std::string& body, Finding& finding);

}  // namespace orbiq::doctor
