#include "app/ctxteng/firewall/fw_lib.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "framework/log/log.h"
#include "framework/process/dynamic_library.h"
#include "framework/process/error_text.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

std::string LastError() { return zem::Tarvik::Util::GetErrMsg(errno); }

}  // namespace

struct FwLibImpl::Library {
  explicit Library(const std::string& name) : file(name) {
    const std::array symbols{
        zem::DynamicLibrary::Of("FW_Initialize", &initialize),
        zem::DynamicLibrary::Of("FW_CreateConnectionAttr", &create),
        zem::DynamicLibrary::Of("FW_AddAttrUserSID", &add_user),
        zem::DynamicLibrary::Of("FW_AddAttrProcessHash", &add_process),
        zem::DynamicLibrary::Of("FW_SetConnectionAttr", &set),
        zem::DynamicLibrary::Of("FW_AddAttrUid2MultiSid", &add_groups),
        zem::DynamicLibrary::Of("FW_ReleaseConnectionAttr", &release),
        zem::DynamicLibrary::Of("FW_StatusToString", &status_text),
    };
    std::string error;
    loaded = file.Open(symbols, &error);
    if (!loaded) ZLOG_WARN("FwLibImpl: %s", error.c_str());
  }

  zem::DynamicLibrary file;
  bool loaded = false;
  decltype(&::FW_Initialize) initialize = nullptr;
  decltype(&::FW_CreateConnectionAttr) create = nullptr;
  decltype(&::FW_AddAttrUserSID) add_user = nullptr;
  decltype(&::FW_AddAttrProcessHash) add_process = nullptr;
  decltype(&::FW_SetConnectionAttr) set = nullptr;
  decltype(&::FW_AddAttrUid2MultiSid) add_groups = nullptr;
  decltype(&::FW_ReleaseConnectionAttr) release = nullptr;
  decltype(&::FW_StatusToString) status_text = nullptr;
};

FwLibImpl::FwLibImpl(const std::string& library) : library_(std::make_unique<Library>(library)) {}
FwLibImpl::~FwLibImpl() = default;

FW_Status FwLibImpl::FW_Initialize(uint32_t version, const FW_Pair* pairs, uint32_t pair_count, uint32_t mode,
                                   FW_InitBlock* block, FW_Handle* handle) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->initialize(version, pairs, pair_count, mode, block, handle);
}

FW_Status FwLibImpl::FW_CreateConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t filter_count,
                                             const FW_FilterKey* filters, uint32_t flags, FW_Attr** attr) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->create(handle, key, filter_count, filters, flags, attr);
}

FW_Status FwLibImpl::FW_AddAttrUserSID(FW_Attr* attr, const char* user) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->add_user(attr, user);
}

FW_Status FwLibImpl::FW_AddAttrProcessHash(FW_Attr* attr, uint64_t hash) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->add_process(attr, hash);
}

FW_Status FwLibImpl::FW_SetConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t flags,
                                          FW_Attr* attr, uint32_t* result) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->set(handle, key, flags, attr, result);
}

FW_Status FwLibImpl::FW_AddAttrUid2MultiSid(FW_Handle handle, FW_Attr* attr, const char* user,
                                            const char* const* groups, uint16_t group_count,
                                            uint32_t user_hash) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->add_groups(handle, attr, user, groups, group_count, user_hash);
}

FW_Status FwLibImpl::FW_ReleaseConnectionAttr(FW_Attr* attr) {
  if (!library_->loaded) return FW_NOT_LOADED;
  return library_->release(attr);
}

int FwLibImpl::OpenDevice(const char* path) {
  const int descriptor = ::open(path, O_RDWR | O_CLOEXEC);
  if (descriptor < 0) {
    ZLOG_CTX_ERROR(1151, "FwLibImpl: Failed to open device %s: %s", path, LastError().c_str());
  }
  return descriptor;
}

void FwLibImpl::CloseDevice(int descriptor) {
  if (descriptor == -1) {
    ZLOG_CTX_ERROR(1152, "FwLibImpl: Invalid devId %d", descriptor);
    return;
  }
  if (::close(descriptor) != 0) {
    ZLOG_CTX_ERROR(1153, "FwLibImpl: Failed to close device descriptor %d: %s", descriptor,
                   LastError().c_str());
  }
}

int FwLibImpl::DeviceIoctl(int descriptor, unsigned long request, void* argument) {
  if (descriptor < 0) {
    ZLOG_CTX_ERROR(1152, "FwLibImpl: Invalid devId %d", descriptor);
    return -1;
  }
  if (::ioctl(descriptor, request, argument) >= 0) return 0;
  ZLOG_CTX_ERROR(1154, "FwLibImpl: Ioctl cmd %d failed on device %d: %s", static_cast<int>(request),
                 descriptor, LastError().c_str());
  CloseDevice(descriptor);
  return -1;
}

const char* FwLibImpl::FW_StatusToString(FW_Status status) {
  return library_->loaded ? library_->status_text(status) : "library not loaded";
}

}  // namespace Ctxt
