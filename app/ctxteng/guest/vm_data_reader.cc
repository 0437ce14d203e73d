#include "app/ctxteng/guest/vm_data_reader.h"

#include <array>
#include <string>

#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/guest/gcf_file.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kTicksBetweenTries = 5;

const char* ProductName(uint8_t product) {
  switch (product) {
    case 1:
      return "WORKSTATION";
    case 2:
      return "DOMAIN CONTROLLER";
    case 3:
      return "SERVER";
    default:
      return "UNKNOWN";
  }
}

void FillWindows(const LibraryBuffer& buffer, OsInfo& os) {
  os.major_version = std::to_string(buffer.Number<uint32_t>(4));
  os.minor_version = std::to_string(buffer.Number<uint32_t>(8));
  os.build_number = std::to_string(buffer.Number<uint32_t>(12));
  os.service_pack = buffer.TextAt(16);
  os.service_pack_major = std::to_string(buffer.Number<uint16_t>(28));
  os.service_pack_minor = std::to_string(buffer.Number<uint16_t>(30));
  os.product_type = ProductName(buffer.Number<uint8_t>(32));
  os.terminal_svc_enabled = true;
  if (EndvatUtil::QueryHostType(&os.terminal_svc_enabled) != ENDVAT_SUCCESS)
    ZLOG_CTX_ERROR(284, "VmData: Could not fetch host type, default value set as RDSH");
}

void FillLinux(const LibraryBuffer& buffer, OsInfo& os) {
  size_t at = 4;
  for (std::string* const text : std::array{
           &os.lsb_version, &os.distribution_id, &os.distribution_description, &os.distribution_release,
           &os.distribution_codename, &os.kernel_release, &os.kernel_version, &os.os}) {
    *text = buffer.TextAt(at);
    at += 12;
  }
}

void LogOs(const VmData& vm) {
  const OsInfo& os = vm.os;
  if (os.os_type == kWindows) {
    ZLOG_INFO("VmData: VM %s: Windows %s.%s build %s, service pack %s (%s.%s), %s, terminal services %d",
              vm.bios_uuid.c_str(), os.major_version.c_str(), os.minor_version.c_str(),
              os.build_number.c_str(), os.service_pack.c_str(), os.service_pack_major.c_str(),
              os.service_pack_minor.c_str(), os.product_type.c_str(), os.terminal_svc_enabled);
  } else if (os.os_type == kLinux) {
    ZLOG_INFO("VmData: VM %s: %s %s %s (%s), %s, kernel %s %s, LSB %s", vm.bios_uuid.c_str(),
              os.distribution_id.c_str(), os.distribution_release.c_str(), os.distribution_codename.c_str(),
              os.distribution_description.c_str(), os.os.c_str(), os.kernel_release.c_str(),
              os.kernel_version.c_str(), os.lsb_version.c_str());
  }
  if (!vm.gi_info_fetched) return;
  ZLOG_INFO("VmData: VM %s: driver %s, network driver %s, tools %s, user mode %s, status %u, service %s",
            vm.bios_uuid.c_str(), vm.gi.driver_version.c_str(), vm.gi.network_driver_version.c_str(),
            vm.gi.tools_version.c_str(), vm.gi.umc_version.c_str(), vm.gi.status,
            vm.gi.service_version.c_str());
}

void FillOs(VmData& vm) {
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::QueryOsInfo(&buffer);
  // An agent that is too old to say what it runs on counts as Windows.
  if ((status != ENDVAT_SUCCESS && status != ENDVAT_ERROR_NOT_SUPPORTED) || !buffer) return;
  const auto os_type = buffer.Number<uint32_t>(0);
  if (os_type == kWindows) {
    vm.os.os_type = os_type;
    FillWindows(buffer, vm.os);
  } else if (os_type == kLinux) {
    vm.os.os_type = os_type;
    FillLinux(buffer, vm.os);
  } else {
    ZLOG_CTX_ERROR(281, "CtxtCore: Invalid OS Type %d", static_cast<int>(os_type));
    return;
  }
  LogOs(vm);
}

}  // namespace

uint32_t FillVmData(VmData& vm) {
  vm.tick = 0;
  if (const uint32_t status = EndvatUtil::GetVmId(&vm.bios_uuid, &vm.gcf_path); status != ENDVAT_SUCCESS)
    return status;
  FillOs(vm);
  vm.gi_info_fetched = false;
  vm.nc_vc_uuid = EndvatUtil::ReadVcUuidFromGcfFile(vm.gcf_path);
  vm.vc_uuid = EndvatUtil::CanonicalVcUuid(vm.nc_vc_uuid);
  if (!vm.vc_uuid.empty() && !vm.nc_vc_uuid.empty()) return ENDVAT_SUCCESS;
  ZLOG_CTX_ERROR(283, "CtxtCore: VM VC UUID is empty, Context Engine behavior may be undefined");
  ZLOG_INFO("CtxtCore: Skipping the VM: %s as VM VC UUID is empty", vm.bios_uuid.c_str());
  return ENDVAT_ERROR_INVALID_PATH;
}

bool FetchGiInfo(VmData& vm, uint32_t tick) {
  if (vm.gi_info_fetched || tick % kTicksBetweenTries != 0) return false;
  ZLOG_INFO("CtxtCore: Trying to get GI Info in timer %u, VM id: %s", tick, vm.vc_uuid.c_str());
  LibraryBuffer buffer;
  const uint32_t status = EndvatUtil::QueryGiInfo(&buffer);
  if (status == ENDVAT_ERROR_NOT_SUPPORTED || status == ENDVAT_ERROR_GUEST_NOT_READY) {
    ZLOG_INFO(
        "CtxtCore: Thin Agent is not yet ready to get GuestTools and GI version for VM Id: %s, error: %s, "
        "timer#: %u",
        vm.vc_uuid.c_str(), EndvatUtil::ErrorName(status), tick);
    return false;
  }
  if (status != ENDVAT_SUCCESS || !buffer) {
    ZLOG_CTX_ERROR(282, "CtxtCore: Failed to get GI Info for VM Id: %s, error: %s", vm.vc_uuid.c_str(),
                   EndvatUtil::ErrorName(status));
    return false;
  }
  if (vm.os.os_type == kWindows) {
    vm.gi.driver_version = buffer.TextAt(4);
    vm.gi.network_driver_version = buffer.TextAt(16);
    vm.gi.tools_version = buffer.TextAt(28);
    vm.gi.umc_version = buffer.TextAt(40);
  } else {
    vm.gi.status = buffer.Number<uint32_t>(4);
    vm.gi.service_version = buffer.TextAt(8);
    vm.gi.network_driver_version = buffer.TextAt(20);
  }
  vm.gi_info_fetched = true;
  LogOs(vm);
  return true;
}

}  // namespace Ctxt
