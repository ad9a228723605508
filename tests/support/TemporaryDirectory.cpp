#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace orbiq::test {

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "orbiq-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  _path = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

}  // namespace orbiq::test
