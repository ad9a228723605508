#pragma once

#include <iosfwd>
#include <string>

#include "tools/requests/LiveFile.h"
#include "tools/requests/RequestsArchive.h"

namespace orbiq::requests {

struct TableStyle {
  bool isColoured = false;
  bool isWide = false;  ///< long texts are shown whole
  double now = 0;       ///< seconds since 1970
};

/// For people: a line on the file, a line for each request, then what is wrong.
void printTable(std::ostream& out, const std::string& path, const Snapshot& snapshot,
                const RequestsArchive& archive, const TableStyle& style);

}  // namespace orbiq::requests
