#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace Ctxt {

/// What is known about a guest's operating system.  Texts that the other kind of system has stay empty.
struct OsInfo {
  uint32_t os_type = 0;  // kWindows, kLinux, 0 unknown

  // Windows
  std::string major_version;
  std::string minor_version;
  std::string build_number;
  std::string service_pack;
  std::string service_pack_major;
  std::string service_pack_minor;
  std::string product_type;
  /// True on a multi-session host, false on a desktop of one user.
  bool terminal_svc_enabled = true;

  // Linux
  std::string lsb_version;
  std::string distribution_id;
  std::string distribution_description;
  std::string distribution_release;
  std::string distribution_codename;
  std::string kernel_release;
  std::string kernel_version;
  std::string os;
};

/// The versions of what the guest runs for introspection.
struct GiInfo {
  // Windows
  std::string driver_version;
  std::string network_driver_version;
  std::string tools_version;
  std::string umc_version;

  // Linux, beside network_driver_version
  uint32_t status = 0;
  std::string service_version;
};

inline constexpr uint32_t kWindows = 1;
inline constexpr uint32_t kLinux = 2;

/// The clients that declare event masks, by their numbers.
enum ClientType : uint32_t { kIdfwClient = 2, kIdsClient = 3, kZemiClient = 4 };

/// One powered-on guest with a usable identity.  The guest event library hands it back in every callback.
///
/// Threads: identity and `os` are constant once the guest is in the table, `gi` from `gi_info_fetched` on.
/// The guest table writes the masks; the atomics may be read from any thread.
struct VmData {
  std::atomic<uint32_t> tick{0};
  std::string bios_uuid;
  /// The 36-character form of `nc_vc_uuid`; the key of the guest.
  std::string vc_uuid;
  /// "vc.uuid" of the guest's configuration file, unchanged; the firewall's name of the guest.
  std::string nc_vc_uuid;
  std::string gcf_path;
  OsInfo os;
  GiInfo gi;
  std::atomic<bool> gi_info_fetched{false};

  /// The wishes of one client.
  struct EventMask {
    std::atomic<uint64_t> mask{0};
    std::atomic<uint8_t> dirty{0};
  };
  EventMask idfw_event_mask;
  EventMask ids_event_mask;
  EventMask zemi_event_mask;
  /// Rises with every change of a mask.
  std::atomic<uint64_t> mask_generation{0};

  std::atomic<uint64_t> vm_events{0};
  std::atomic<uint64_t> system_events{0};
  std::atomic<uint64_t> network_events{0};
  std::atomic<uint64_t> timer_events{0};
  /// Wall clock of the last timer event, in seconds.
  std::atomic<uint64_t> last_timer_event{0};

  /// Null for a number that is no client's.
  EventMask* MaskOf(uint32_t client_type) {
    switch (client_type) {
      case kIdfwClient:
        return &idfw_event_mask;
      case kIdsClient:
        return &ids_event_mask;
      case kZemiClient:
        return &zemi_event_mask;
      default:
        return nullptr;
    }
  }
  std::array<EventMask*, 3> Masks() { return {&idfw_event_mask, &ids_event_mask, &zemi_event_mask}; }
};

}  // namespace Ctxt
