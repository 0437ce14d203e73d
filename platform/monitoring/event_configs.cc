#include "platform/monitoring/event_configs.h"

#include <boost/property_tree/json_parser.hpp>
#include <optional>
#include <utility>

#include "platform/monitoring/event_catalogue.h"

namespace zem::monitoring {
namespace {

using boost::property_tree::ptree;

std::optional<ptree> ReadCustomizations(const std::string& path) {
  ptree tree;
  try {
    boost::property_tree::read_json(path, tree);
  } catch (const boost::property_tree::json_parser_error&) {
    return std::nullopt;  // not written yet, or its folder is gone
  }
  return tree;
}

EventSourceConfig ConfigOf(const CatalogueEvent& event, const ptree& customizations) {
  EventSourceConfig config{event.event_type_id, false, event.threshold};
  const auto found = customizations.find(std::string(event.name));
  if (found == customizations.not_found()) return config;
  config.is_disabled = found->second.get("is_disabled", false);
  config.threshold = found->second.get("threshold", config.threshold);
  return config;
}

}  // namespace

EventConfigs::EventConfigs(uint16_t feature_id, std::string path)
    : feature_id_(feature_id), path_(std::move(path)) {}

std::vector<EventSourceConfig> EventConfigs::Changed() {
  const std::optional<ptree> customizations = ReadCustomizations(path_);
  if (!customizations && !known_.empty()) return {};
  std::vector<EventSourceConfig> changed;
  for (const CatalogueEvent& event : EventCatalogue()) {
    if (event.feature_id != feature_id_) continue;
    const EventSourceConfig config = ConfigOf(event, customizations.value_or(ptree()));
    const auto known = known_.find(event.event_type_id);
    if (known != known_.end() && known->second.is_disabled == config.is_disabled &&
        known->second.threshold == config.threshold) {
      continue;
    }
    known_[event.event_type_id] = config;
    changed.push_back(config);
  }
  return changed;
}

}  // namespace zem::monitoring
