#pragma once

#include <httplib.h>

#include <span>
#include <string_view>

namespace orbiq::collector {

/// A file of the page, as it stands in the program.
struct PageFile {
  std::string_view name;
  std::string_view content;
};

/// The files of the directory `page`; the build writes this function.
std::span<const PageFile> pageFiles();

/// Serves the page at "/", the files that it needs beside it, and the interface's description.
void addPage(httplib::Server& server);

}  // namespace orbiq::collector
