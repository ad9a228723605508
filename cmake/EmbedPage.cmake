# Writes a C++ file that holds the files of the collector's page:
# cmake -D "FILES=…;…" -D OUTPUT=… -P EmbedPage.cmake
set(arrays "")
set(entries "")
set(number 0)
foreach(file IN LISTS FILES)
  get_filename_component(name ${file} NAME)
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char kFile${number}[] = {${bytes}};\n")
  string(APPEND entries "    {\"${name}\", {kFile${number}, sizeof(kFile${number})}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"tools/collector/Page.h\"

namespace orbiq::collector {
namespace {

${arrays}
constexpr PageFile kFiles[] = {
${entries}};

}  // namespace

std::span<const PageFile> pageFiles() { return kFiles; }

}  // namespace orbiq::collector
")
