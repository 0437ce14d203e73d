#include "platform/monitoring/event_configs.h"

#include <boost/property_tree/json_parser.hpp>
#include <cmath>
#include <limits>
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
  // A customization that says nothing about the threshold is written with 0.
  const auto threshold = found->second.get<uint32_t>("threshold", 0);
  if (threshold != 0) config.threshold = threshold;
  const auto with_fraction = found->second.get<double>("threshold_floating_point", 0);
  if (with_fraction > 0 && with_fraction <= std::numeric_limits<uint32_t>::max()) {
    config.threshold = static_cast<uint32_t>(std::ceil(with_fraction));
  }
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
