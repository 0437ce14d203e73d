#include "platform/monitoring/event_catalogue.h"

#include <array>

namespace zem::monitoring {
namespace {

constexpr uint16_t kEndpointProtection = 13;
constexpr uint16_t kIntrusionDetection = 33;

// An event with two numbers has the second one on a host with a DPU; one name customizes both.
constexpr std::array kEvents = {
    CatalogueEvent{kEndpointProtection, 3, "endpoint_protection.partner_channel_down", 0},
    CatalogueEvent{kIntrusionDetection, 13, "intrusion_detection.process_down", 1},
    CatalogueEvent{kIntrusionDetection, 31, "intrusion_detection.process_down", 1},
    CatalogueEvent{kIntrusionDetection, 15, "intrusion_detection.memory_usage_high", 75},
    CatalogueEvent{kIntrusionDetection, 23, "intrusion_detection.memory_usage_high", 75},
    CatalogueEvent{kIntrusionDetection, 17, "intrusion_detection.memory_usage_very_high", 85},
    CatalogueEvent{kIntrusionDetection, 33, "intrusion_detection.memory_usage_very_high", 85},
    CatalogueEvent{kIntrusionDetection, 19, "intrusion_detection.memory_usage_critical", 95},
    CatalogueEvent{kIntrusionDetection, 35, "intrusion_detection.memory_usage_critical", 95},
    CatalogueEvent{kIntrusionDetection, 55, "intrusion_detection.oversubscription_bypassed", 0},
    CatalogueEvent{kIntrusionDetection, 63, "intrusion_detection.oversubscription_dropped", 0},
    CatalogueEvent{kIntrusionDetection, 77, "intrusion_detection.capture_directory_full", 0},
    CatalogueEvent{kIntrusionDetection, 83, "intrusion_detection.message_brokers_down", 0},
};

}  // namespace

std::span<const CatalogueEvent> EventCatalogue() { return kEvents; }

}  // namespace zem::monitoring
