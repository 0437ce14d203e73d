// The guest event library hands over what guests say.  Whatever it answers, to each call of a question:
// nothing outside the buffers is read, and the records that come out of it hold no more than the buffers did.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/guest/conn_info_builder.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/guest/session_info_builder.h"
#include "app/ctxteng/guest/user_tables.h"
#include "app/ctxteng/guest/vm_data_reader.h"
#include "tests/support/silent_log.h"

namespace {

constexpr size_t kMostAnswer = 4096;

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
  uint8_t Next() {
    if (left_ == 0) return 0;
    --left_;
    return *data_++;
  }
  uint16_t Word() { return static_cast<uint16_t>(Next() | Next() << 8); }

 private:
  const uint8_t* data_;
  size_t left_;
};

// Answers every question from the input: its size or a status, then the content, in which some pointers lead
// into the buffer.
class FuzzLib final : public Ctxt::IEndvatLib {
 public:
  explicit FuzzLib(Input& input) : input_(input) {}

  ENDVAT_STATUS Fill(void* buffer, uint32_t* length) {
    const uint8_t kind = input_.Next();
    if (kind == 0xff) return input_.Next();
    if (buffer == nullptr) {
      *length = input_.Word() % kMostAnswer;
      return ENDVAT_ERROR_BUFFER_TOO_SMALL;
    }
    char* const bytes = static_cast<char*>(buffer);
    const uint32_t size = *length;
    for (uint32_t i = 0; i < std::min<uint32_t>(size, 200); ++i) bytes[i] = static_cast<char>(input_.Next());
    for (int i = kind % 16; i > 0; --i) {
      const uint8_t at = input_.Next();
      const uint64_t target = reinterpret_cast<uint64_t>(bytes) + input_.Next();
      if (at + sizeof(target) <= size) std::memcpy(bytes + at, &target, sizeof(target));
    }
    return ENDVAT_SUCCESS;
  }

  ENDVAT_STATUS EndvatGetSolutionId(void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatGetHealthStatus(void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatQueryConfiguration(ENDVAT_CONFIG*, uint32_t*) override { return 0; }
  ENDVAT_STATUS EndvatSetConfiguration(const ENDVAT_CONFIG*) override { return 0; }
  ENDVAT_STATUS EndvatLibInit(uint32_t, const char* const*, const char* const*, ENDVAT_LIB_INFO*) override {
    return 0;
  }
  ENDVAT_STATUS EndvatRegisterNetworkEventHandler(ENDVAT_NETWORK_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterTimerEventHandler(ENDVAT_TIMER_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterVMEventHandler(ENDVAT_VM_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterErrorHandler(ENDVAT_ERROR_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterMuxEventHandler(ENDVAT_MUX_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterPanicHandler(ENDVAT_PANIC_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatRegisterSystemEventHandler(ENDVAT_SYSTEM_HANDLER) override { return 0; }
  ENDVAT_STATUS EndvatEnableCallbacks() override { return 0; }
  ENDVAT_STATUS EndvatLibUnload() override { return 0; }
  ENDVAT_STATUS EndvatQuerySystemInfo(uint32_t, void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatQuerySystemEventInformation(ENDVAT_HANDLE, uint32_t, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatGetVMId(void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatQueryRegistry(ENDVAT_HANDLE, const char*, const char*, void*, uint32_t*) override {
    return 0;
  }
  ENDVAT_STATUS EndvatFileGetName(ENDVAT_HANDLE, void*, uint32_t*) override { return 0; }
  ENDVAT_STATUS EndvatQuerySidInfo(ENDVAT_HANDLE, const char*, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatLinuxQueryUidInfo(ENDVAT_HANDLE, uint32_t, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatLinuxQueryGidInfo(ENDVAT_HANDLE, uint32_t, void*, uint32_t*) override { return 0; }
  ENDVAT_STATUS EndvatSetVMData(ENDVAT_HANDLE, void*) override { return 0; }
  ENDVAT_STATUS EndvatNetworkGetEventInfo(ENDVAT_HANDLE, void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatQueryProcessInfo(const ENDVAT_PROCESS_ID*, uint32_t, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatQuerySessionInfo(uint32_t, uint32_t, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatQueryNetworkEventInformation(ENDVAT_HANDLE, uint32_t, void* b, uint32_t* l) override {
    return Fill(b, l);
  }
  ENDVAT_STATUS EndvatQueryLogonSessionsEx(void* b, uint32_t* l) override { return Fill(b, l); }
  ENDVAT_STATUS EndvatConfigureMux(const void*, uint32_t) override { return 0; }

 private:
  Input& input_;
};

void Check(bool good) {
  if (!good) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  Input input(data, size);
  Ctxt::SetEndvatLib(std::make_shared<FuzzLib>(input));
  Ctxt::UserTables users;
  users.InitializeMetadata(16);
  Ctxt::VmData vm;
  vm.vc_uuid = "502a1122-3344-5566-7788-99aabbccdd01";
  vm.os.os_type = input.Next() % 4;
  vm.os.terminal_svc_enabled = false;
  const uint8_t type = input.Next() % 10;
  const Ctxt::ConnInfoBuilder builder(users, [](const std::string& name) { return name.size() % 2 == 0; },
                                      {true, input.Next() % 2 == 0});
  try {
    const auto info = builder.Build(type, nullptr, vm);
    Check(info->src_ip.size() < 40 && info->dest_ip.size() < 40);
    Check(info->group_keys.size() == info->group_count && info->group_count <= kMostAnswer / 4);
    Check(info->process_name.size() <= kMostAnswer && info->cmdline.size() <= kMostAnswer);
    Check(info->process_hash.size() <= 2 * kMostAnswer);
    Check(info->user_dfw_key.empty() == (info->user_hash == 0) || info->os_type == 0);
  } catch (const Ctxt::EndvatApiError&) {
  }
  try {
    const auto info = Ctxt::BuildUserSessionInfo(type, nullptr, vm, users);
    Check(info->client_ip.size() < 40);
    Check(info->group_sids.size() + info->group_ids.size() == info->group_count);
  } catch (const Ctxt::EndvatApiError&) {
  }
  (void)Ctxt::FetchUserInfo(vm, users);
  Ctxt::VmData fresh;
  if (Ctxt::FillVmData(fresh) == ENDVAT_SUCCESS) Check(fresh.vc_uuid.size() == 36);
  (void)Ctxt::FetchGiInfo(fresh, 0);
  std::string text;
  (void)Ctxt::EndvatUtil::GetSolutionId(&text);
  Check(text.size() <= kMostAnswer);
  (void)Ctxt::EndvatUtil::GetHealthStatus(&text);
  Check(text.size() <= kMostAnswer);
  Ctxt::SetEndvatLib(nullptr);
  return 0;
}
