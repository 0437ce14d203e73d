// The controllers' file is written by others too: any bytes must be read to the end or refused, and what was
// read must come back from what is written of it.

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/controller/conn_config.h"
#include "app/controller/controller_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::controller;
  boost::property_tree::ptree tree;
  std::string error;
  if (!ControllerFile::Parse({reinterpret_cast<const char*>(data), size}, &tree, &error)) return 0;
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
