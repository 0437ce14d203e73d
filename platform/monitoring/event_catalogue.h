#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace zem::monitoring {

/// An event that sources of the node may raise.
struct CatalogueEvent {
  uint16_t feature_id;
  uint16_t event_type_id;
  /// Its key in the file of customizations.
  std::string_view name;
  uint32_t threshold;
};

std::span<const CatalogueEvent> EventCatalogue();

}  // namespace zem::monitoring
