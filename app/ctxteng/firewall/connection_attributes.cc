#include "app/ctxteng/firewall/connection_attributes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "app/ctxteng/firewall/fw_lib.h"
#include "framework/log/log.h"

namespace Ctxt::DfwUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kFilterKind = 1;
constexpr uint32_t kMostVnics = 1U << 24U;

template <size_t size>
void CopyText(const std::string& text, char (&field)[size]) {
  std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

FW_ConnKey ConnectionKey(const DfwUserProcessInfo& info) {
  FW_ConnKey key{};
  key.family = info.ip_version & 1U;
  key.protocol = static_cast<uint8_t>(info.protocol);
  key.src_port = htons(static_cast<uint16_t>(info.src_port));
  key.dest_port = htons(static_cast<uint16_t>(info.dest_port));
  // An address that is none leaves zeros, which the firewall matches with no connection.
  const int family = info.ip_version == 1 ? AF_INET6 : AF_INET;
  ::inet_pton(family, info.src_ip.c_str(), key.src_ip);
  ::inet_pton(family, info.dest_ip.c_str(), key.dest_ip);
  return key;
}

// What is to be attached on one vNIC; released with this object.
class Attributes {
 public:
  Attributes(IFwLib& library, FW_Handle handle, const FW_ConnKey& key, const std::string& vm, uint32_t vnic)
      : library_(library) {
    FW_FilterKey filter{};
    CopyText(vm, filter.vm_uuid);
    CopyText(kAgent, filter.agent);
    filter.kind = kFilterKind;
    filter.vnic = vnic & (kMostVnics - 1);
    status_ = vnic < kMostVnics ? library.FW_CreateConnectionAttr(handle, &key, 1, &filter, 0, &attr_)
                                : static_cast<FW_Status>(FW_BAD_KEY);
    if (status_ != FW_OK) {
      ZLOG_CTX_ERROR(1002, "DfwConnector: Failed to CreateConnectionAttr for filter %s, status %d",
                     vm.c_str(), status_);
    }
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  FW_Status status() const { return status_; }
  FW_Attr* get() const { return attr_; }

  /// False when the library refuses; true as well when there is nothing to release.
  bool Release() { return attr_ == nullptr || library_.FW_ReleaseConnectionAttr(attr_) == FW_OK; }

 private:
  IFwLib& library_;
  FW_Attr* attr_ = nullptr;
  FW_Status status_ = FW_OK;
};

FW_Status Attach(IFwLib& library, FW_Handle handle, const FW_ConnKey& key, const DfwUserProcessInfo& info,
                 FW_Attr* attr, uint32_t vnic, bool with_process) {
  const char* const vm = info.nc_vc_uuid.c_str();
  const char* const user = info.user_dfw_key.c_str();
  const uint64_t process = with_process ? info.process_dfw_key : 0;
  if (with_process) {
    if (const FW_Status status = library.FW_AddAttrProcessHash(attr, info.process_dfw_key); status != FW_OK) {
      ZLOG_CTX_ERROR(1005,
                     "DfwConnector: Failed to AddAttrProcessHash for filter %s, process key: %lu, status %d",
                     vm, process, status);
      return status;
    }
  }
  if (const FW_Status status = library.FW_AddAttrUserSID(attr, user); status != FW_OK) {
    ZLOG_CTX_ERROR(1006, "DfwConnector: Failed to AddAttrUserSID for filter %s, user: %s, status %d", vm,
                   user, status);
    return status;
  }
  uint32_t result = 0;
  if (const FW_Status status = library.FW_SetConnectionAttr(handle, &key, 0, attr, &result);
      status != FW_OK) {
    ZLOG_CTX_ERROR(
        1007,
        "DfwConnector: Failed to SetConnectionAttr for filter %s, user: %s, process key: %lu, status %d", vm,
        user, process, status);
    return status;
  }
  ZLOG_DEBUG(
      "DfwConnector: Successfully added entry to context table for filter (VM) %s, Vnic %u, user: %s, "
      "process key: %lu",
      vm, vnic, user, process);
  return FW_OK;
}

}  // namespace

FW_Status SetConnection(IFwLib& library, FW_Handle handle, const DfwUserProcessInfo& info,
                        const std::set<uint32_t>& vnics, bool with_process) {
  const FW_ConnKey key = ConnectionKey(info);
  for (const uint32_t vnic : vnics) {
    ZLOG_DEBUG("DfwConnector: Processing filter %u for VM %s", vnic, info.nc_vc_uuid.c_str());
    Attributes attributes(library, handle, key, info.nc_vc_uuid, vnic);
    FW_Status status = attributes.status();
    if (status == FW_OK) status = Attach(library, handle, key, info, attributes.get(), vnic, with_process);
    if (!attributes.Release()) {
      ZLOG_ERROR("ERR_CTXT_RELEASE_CONN_ATTR", "DfwConnector: Failed to release attr for filter %s",
                 info.nc_vc_uuid.c_str());
    }
    if (status != FW_OK) return status;
  }
  return FW_OK;
}

FW_Status SetMembership(IFwLib& library, FW_Handle handle, const DfwUserProcessInfo& info, uint32_t vnic) {
  const char* const user = info.user_dfw_key.c_str();
  ZLOG_DEBUG("DfwConnector: Adding user-group membership for user %s on filter %u", user, vnic);
  constexpr size_t kMostGroups = std::numeric_limits<uint16_t>::max();
  std::vector<const char*> groups;
  for (const std::string& group : info.group_keys) {
    if (groups.size() == kMostGroups) {
      ZLOG_WARN("DfwConnector: User %s has %zu groups, the firewall gets %zu", user, info.group_keys.size(),
                kMostGroups);
      break;
    }
    ZLOG_DEBUG("DfwConnector: \t Group Sid: %s", group.c_str());
    groups.push_back(group.c_str());
  }
  Attributes attributes(library, handle, FW_ConnKey{}, info.nc_vc_uuid, vnic);
  FW_Status status = attributes.status();
  if (status == FW_OK) {
    status = library.FW_AddAttrUid2MultiSid(handle, attributes.get(), user, groups.data(),
                                            static_cast<uint16_t>(groups.size()), info.user_hash);
    if (status != FW_OK) {
      ZLOG_CTX_ERROR(1003, "DfwConnector: Failed to AddAttrUid2MultiSid for filter %s, user: %s, status %d",
                     info.nc_vc_uuid.c_str(), user, status);
    } else {
      ZLOG_DEBUG("DfwConnector: Successfully added user-group membership for user %s, user hash %u", user,
                 info.user_hash);
    }
  }
  if (!attributes.Release()) {
    ZLOG_CTX_ERROR(1004, "DfwConnector: Failed to release attr for filter %s", info.nc_vc_uuid.c_str());
  }
  return status;
}

}  // namespace Ctxt::DfwUtil
