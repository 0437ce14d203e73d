// Other programs write the controllers' file too: any bytes must be parsed or refused, and a parsed file must
// survive writing and parsing.

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/controller/conn_config.h"
#include "app/controller/controller_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::controller;
  boost::property_tree::ptree tree;
  if (!ControllerFile::Parse({reinterpret_cast<const char*>(data), size}, &tree)) return 0;
  const auto list = tree.get_child_optional("config.connectionList");
  if (!list) return 0;
  for (const auto& [name, element] : *list) {
    ConnConfig config;
    config.ReadFrom(element);
    boost::property_tree::ptree written;
    config.WriteTo(&written);
    ConnConfig again;
    if (!again.ReadFrom(written) || !(again == config)) std::abort();
  }
  return 0;
}
