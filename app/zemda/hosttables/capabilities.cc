#include "app/zemda/hosttables/capabilities.h"

#include <boost/property_tree/xml_parser.hpp>
#include <exception>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "framework/log/log.h"
#include "platform/core/text_repair.h"
#include "proto/ida/ida.pb.h"

namespace ZemDa {
namespace {

namespace fs = std::filesystem;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr uintmax_t kMostBytes = 1 << 20;

void ReadFile(const fs::path& path, orlane::zem::ida::HostMsg* host) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    ZLOG_WARN("Capability file '%s' does not exist", path.c_str());
    return;
  }
  try {
    boost::property_tree::ptree tree;
    read_xml(
        file, tree,
        boost::property_tree::xml_parser::no_comments | boost::property_tree::xml_parser::trim_whitespace);
    for (const auto& [name, child] : tree.get_child("capabilityList")) {
      if (name != "capability") continue;
      const auto text = [&child = child](const char* what) {
        return zem::RepairText(child.get<std::string>(what, ""));
      };
      auto* const entry = host->add_capability_entry();
      entry->set_key(text("key"));
      entry->set_description(text("description"));
      entry->set_version(text("version"));
      entry->set_detail(text("detail"));
      entry->set_detailtype(text("detailtype"));
    }
  } catch (const std::exception& error) {
    ZLOG_ERROR("MPA20007", "Error in parsing XML file '%s': %s", path.c_str(), error.what());
  } catch (...) {
    ZLOG_ERROR("MPA20004", "Unknown exception occurred,while parsing XML file");
  }
}

}  // namespace

void ReadCapabilities(const std::string& folder, orlane::zem::ida::HostMsg* host) {
  std::error_code error;
  const fs::file_status status = fs::status(folder, error);
  if (!fs::exists(status)) {
    ZLOG_DEBUG("Capability directory '%s' does not exist", folder.c_str());
    return;
  }
  if (!fs::is_directory(status)) {
    ZLOG_WARN("Capability directory '%s' is not valid", folder.c_str());
    return;
  }
  std::set<fs::path> files;
  try {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      if (entry.is_directory()) continue;
      // Anything else, a FIFO above all, may block whoever opens it.
      if (!entry.is_regular_file() || entry.file_size() > kMostBytes) {
        ZLOG_WARN("Capability file '%s' is no file of a sensible size", entry.path().c_str());
        continue;
      }
      ZLOG_DEBUG("Found capability file '%s'", entry.path().c_str());
      files.insert(entry.path());
    }
  } catch (const std::exception& failure) {
    ZLOG_ERROR("MPA20009", "Accessing %s directory failed : %s", folder.c_str(), failure.what());
  }
  for (const fs::path& path : files) ReadFile(path, host);
}

}  // namespace ZemDa
