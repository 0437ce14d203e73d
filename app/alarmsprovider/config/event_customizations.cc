#include "app/alarmsprovider/config/event_customizations.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/unique_fd.h"
#include "proto/covedb/monitoring_objects.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr mode_t kFileMode = 0644;

using boost::property_tree::ptree;
using orlane::zem::covedb::EventConfigMsg;

void PutThreshold(const EventConfigMsg& event, ptree* entry) {
  if (event.has_threshold()) {
    if (event.has_threshold_floating_point()) {
      ZLOG_WARN("ConfigSyncManager: threshold and threshold_floating_point both are configured");
    }
    entry->put("threshold", event.threshold());
  } else if (event.has_threshold_floating_point()) {
    entry->put("threshold_floating_point", event.threshold_floating_point());
  } else {
    ZLOG_WARN("ConfigSyncManager: threshold and threshold_floating_point both are not configured");
    entry->put("threshold", 0);
  }
}

void WriteSynced(const std::string& path, const std::string& text) {
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
  if (!file) throw std::system_error(errno, std::generic_category(), "cannot open file");
  for (size_t written = 0; written < text.size();) {
    const ssize_t count = ::write(file.get(), text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category(), "write error");
    written += static_cast<size_t>(count);
  }
  if (::fsync(file.get()) != 0) throw std::system_error(errno, std::generic_category(), "write error");
}

}  // namespace

struct EventCustomizations::Tree {
  ptree root;
};

EventCustomizations::EventCustomizations(std::string path)
    : path_(std::move(path)), tree_(std::make_unique<Tree>()) {}

EventCustomizations::~EventCustomizations() = default;

void EventCustomizations::Update(const EventConfigMsg& event) {
  ZLOG_DEBUG("ConfigSyncManager: Updating event customization %s", event.name().c_str());
  ptree entry;
  entry.put("is_disabled", event.is_disabled());
  entry.put("sampling_interval", event.sampling_interval());
  entry.put("sensitivity", event.sensitivity());
  entry.put("suppress_alarm", event.suppress_alarm());
  entry.put("suppress_snmp_trap", event.suppress_snmp_trap());
  PutThreshold(event, &entry);
  // The name is one key, whatever characters it holds: `put` would take it for a path.
  const auto known = tree_->root.find(event.name());
  if (known != tree_->root.not_found()) {
    known->second = std::move(entry);
  } else {
    tree_->root.push_back({event.name(), std::move(entry)});
  }
}

void EventCustomizations::Delete(const std::string& name) {
  ZLOG_DEBUG("ConfigSyncManager: Deleting event customization %s", name.c_str());
  tree_->root.erase(name);
}

void EventCustomizations::Clear() {
  ZLOG_DEBUG("ConfigSyncManager: Clearing event customizations");
  tree_->root.clear();
}

bool EventCustomizations::empty() const { return tree_->root.empty(); }

bool EventCustomizations::Write() const {
  ZLOG_DEBUG("ConfigSyncManager: Writing event customizations");
  const std::string temporary = std::filesystem::path(path_).replace_extension(".tmp").string();
  // After a write that fails there must be nothing that the rename could put into the file's place.
  std::error_code ignored;
  std::filesystem::remove(temporary, ignored);
  try {
    std::ostringstream text;
    boost::property_tree::write_json(text, tree_->root);
    WriteSynced(temporary, text.str());
  } catch (const std::exception& error) {
    ZLOG_ERROR("OPS00001", "Failed to parse json config %s. Error (%s)", temporary.c_str(), error.what());
    std::filesystem::remove(temporary, ignored);
  }
  std::error_code failed;
  std::filesystem::rename(temporary, path_, failed);
  if (failed) {
    ZLOG_WARN("Error when serializing event customizations: %s", failed.message().c_str());
    return false;
  }
  return true;
}

}  // namespace zem::Tarvik
