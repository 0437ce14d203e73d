#pragma once

#include <cstdint>
#include <string>

namespace IdsEvtEng {

/// A number that a line did not bring.
inline constexpr uint32_t kNotSet = 0xFFFFFFFF;

enum EventType : uint32_t { kOtherEvent = 0, kAlertEvent = 1, kFlowSnipEvent = 2 };
enum Direction : uint32_t { kNoDirection = 0, kToClient = 1, kToServer = 2 };
enum FlipEndpoints : uint32_t { kFlipNotSaid = 0, kFlipNo = 1, kFlipYes = 2 };
enum FlowMatch : uint32_t { kNoMatch = 0, kSourceMatches = 1, kDestinationMatches = 2 };
inline constexpr uint32_t kActionNotSet = 3;

/// One alert, or the notice of one capture.
struct IdsEvent {
  std::string src_ip;
  std::string dest_ip;
  uint32_t src_port = kNotSet;
  uint32_t dest_port = kNotSet;
  std::string proto;
  std::string app_proto;
  uint64_t flow_id = 0;
  uint32_t event_type = kOtherEvent;
  uint32_t signature_id = kNotSet;
  std::string signature;
  std::string timestamp;
  int32_t severity = -1;
  uint32_t session_dir = 0;  // 1 source, 2 destination
  uint32_t event_dir = 0;    // 1 ingress, 2 egress, 3 both
  uint32_t count = 1;
  std::string target_ip;
  uint32_t target_port = kNotSet;
  uint32_t direction = kNoDirection;
  uint32_t flip_endpoints = kFlipNotSaid;
  std::string flow_src_ip;
  std::string flow_dest_ip;
  uint32_t flow_match = kNoMatch;
  uint32_t flow_dir = 0;            // 1 or 2
  uint32_t action = kActionNotSet;  // 0 allowed, 1 drop, 2 reject
  uint32_t user_id = 0;             // the hash of the user's key
  uint32_t rule_id = kNotSet;
  std::string profile_id;
  uint32_t vnic_id = kNotSet;
  std::string vm_uuid;
  std::string lsp_uuid;
  uint64_t bytes_to_server = 0;
  uint64_t bytes_to_client = 0;
  uint64_t snip_ts_us = 0;
  std::string http_hostname;
  uint32_t http_port = kNotSet;
  std::string http_url;
  uint32_t detector_id = kNotSet;
  std::string ids_mode;
};

/// The event as log lines show it.
std::string LogText(const IdsEvent& event);

/// The address from which the attack comes.
const std::string& AttackerOf(const IdsEvent& event);
/// The port by which events are merged: the attacked one.
uint32_t MergePortOf(const IdsEvent& event);

}  // namespace IdsEvtEng
