#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/firewall/firewall.h"

namespace Ctxt {

/// The firewall library and its device, as the engine calls them.
///
/// Threads: all operations from any thread.
class IFwLib {
 public:
  virtual ~IFwLib() = default;

  virtual FW_Status FW_Initialize(uint32_t version, const FW_Pair* pairs, uint32_t pair_count, uint32_t mode,
                                  FW_InitBlock* block, FW_Handle* handle) = 0;
  virtual FW_Status FW_CreateConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t filter_count,
                                            const FW_FilterKey* filters, uint32_t flags, FW_Attr** attr) = 0;
  virtual FW_Status FW_AddAttrUserSID(FW_Attr* attr, const char* user) = 0;
  virtual FW_Status FW_AddAttrProcessHash(FW_Attr* attr, uint64_t hash) = 0;
  virtual FW_Status FW_SetConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t flags,
                                         FW_Attr* attr, uint32_t* result) = 0;
  virtual FW_Status FW_AddAttrUid2MultiSid(FW_Handle handle, FW_Attr* attr, const char* user,
                                           const char* const* groups, uint16_t group_count,
                                           uint32_t user_hash) = 0;
  virtual FW_Status FW_ReleaseConnectionAttr(FW_Attr* attr) = 0;

  /// The descriptor, or -1, which is logged.
  virtual int OpenDevice(const char* path) = 0;
  virtual void CloseDevice(int descriptor) = 0;
  /// 0, or -1, which is logged; the descriptor is then closed already.
  virtual int DeviceIoctl(int descriptor, unsigned long request, void* argument) = 0;

  virtual const char* FW_StatusToString(FW_Status status) = 0;
};

/// The host's library, loaded by the constructor.  Without it each call of the library fails with
/// FW_NOT_LOADED.
class FwLibImpl : public IFwLib {
 public:
  explicit FwLibImpl(const std::string& library = "libzemfw.so");
  ~FwLibImpl() override;

  FW_Status FW_Initialize(uint32_t version, const FW_Pair* pairs, uint32_t pair_count, uint32_t mode,
                          FW_InitBlock* block, FW_Handle* handle) override;
  FW_Status FW_CreateConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t filter_count,
                                    const FW_FilterKey* filters, uint32_t flags, FW_Attr** attr) override;
  FW_Status FW_AddAttrUserSID(FW_Attr* attr, const char* user) override;
  FW_Status FW_AddAttrProcessHash(FW_Attr* attr, uint64_t hash) override;
  FW_Status FW_SetConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t flags, FW_Attr* attr,
                                 uint32_t* result) override;
  FW_Status FW_AddAttrUid2MultiSid(FW_Handle handle, FW_Attr* attr, const char* user,
                                   const char* const* groups, uint16_t group_count,
                                   uint32_t user_hash) override;
  FW_Status FW_ReleaseConnectionAttr(FW_Attr* attr) override;
  int OpenDevice(const char* path) override;
  void CloseDevice(int descriptor) override;
  int DeviceIoctl(int descriptor, unsigned long request, void* argument) override;
  const char* FW_StatusToString(FW_Status status) override;

 private:
  struct Library;
  const std::unique_ptr<Library> library_;
};

}  // namespace Ctxt
