#include "tools/collector/Record.h"

#include <iostream>
#include <stdexcept>

namespace orbiq::collector {

Record::Record(const std::string& path) : _path(path), _file(path, std::ios::app) {
  if (!_file) throw std::runtime_error("cannot write " + path);
}

void Record::add(const nlohmann::json& exchange) {
  _file.clear();
  _file << exchange.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
  if (_file || !_isWhole) return;
  _isWhole = false;
  std::cerr << "orbiq-collector: cannot write " << _path << "; exchanges are missing in it\n";
}

}  // namespace orbiq::collector
