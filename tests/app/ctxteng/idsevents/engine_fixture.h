#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/ids_evt_engine.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "platform/core/condition.h"
#include "platform/core/unix_socket.h"
#include "platform/core/virtual_clock.h"
#include "proto/base/tenant_context.pb.h"
#include "proto/context/ids.pb.h"
#include "tests/app/ctxteng/idsevents/alert_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace IdsEvtEng {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;

/// The manager as the channel reaches it: keeps what is sent, can be away, and can hang.
class ManagerStub final : public Ctxt::CtxtChannel {
 public:
  ManagerStub() : CtxtChannel(link_) {}

  void RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback) override {
    clients[app_id] = {app_type, std::move(callback)};
  }
  int SendMsg(const Ctxt::CtxtMsg& message, bool is_request) override {
    EXPECT_TRUE(is_request);
    std::unique_lock lock(mutex);
    if (hangs) changed.Wait(lock, [this] { return !hangs; });
    if (message.payload == nullptr) throw std::runtime_error("nothing to send");
    if (status < 0) return status;
    EXPECT_EQ(message.payloadLen, message.payload->ByteSizeLong());
    sent.push_back(message);
    return status;
  }
  void SetHangs(bool on) {
    const std::lock_guard lock(mutex);
    hangs = on;
    changed.NotifyAll();
  }

  template <class Message>
  std::vector<const Message*> Sent() const {
    const std::lock_guard lock(mutex);
    std::vector<const Message*> messages;
    for (const auto& message : sent) {
      if (const auto* const m = dynamic_cast<const Message*>(message.payload.get())) messages.push_back(m);
    }
    return messages;
  }

  struct Client {
    std::string app_type;
    Callback callback;
  };
  std::map<std::string, Client> clients;
  mutable std::mutex mutex;  // guards what follows
  zem::Condition changed;
  bool hangs = false;
  int status = 0;
  std::vector<Ctxt::CtxtMsg> sent;

 private:
  Ctxt::MpaChannel link_;
};

/// The intrusion detection client, with a Kafka that keeps what it gets.
class ServicesStub final : public IIdsServices {
 public:
  bool IsKafkaReady() override { return kafka_ready; }
  int SendKafkaEvent(const EventInfoMsg& message) override {
    const std::lock_guard lock(mutex);
    if (kafka_status == 0) events.push_back(message);
    return kafka_status;
  }
  int SendKafkaPcap(const PcapInfoMsg& message) override {
    const std::lock_guard lock(mutex);
    if (kafka_status == 0) pcaps.push_back(message);
    return kafka_status;
  }
  bool GetTnUuid(orlane::zem::UuidMsg* uuid) override {
    uuid->set_first(1);
    return true;
  }
  void GetSiteId(orlane::zem::UuidMsg* uuid) override {
    if (site_fails) throw std::runtime_error("no site");
    uuid->set_first(42);
  }
  bool FillTenantContext(uint32_t, orlane::zem::TenantContextMsg* tenant) override {
    tenant->set_org("o");
    return true;
  }
  std::string GetTenantString(uint32_t) override { return "[org=\"o\"]: "; }
  bool IsEnabled() override { return true; }
  bool IsExternalLoggingEnabled() override { return external_logging; }
  bool IsPcapEnabled() override { return true; }

  std::atomic<bool> kafka_ready{false};
  std::atomic<bool> external_logging{false};
  std::atomic<bool> site_fails{false};
  std::atomic<int> kafka_status{0};
  std::mutex mutex;  // guards what follows
  std::vector<EventInfoMsg> events;
  std::vector<PcapInfoMsg> pcaps;
};

/// The engine with all its threads, on a clock in the test's hand.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    param.idsSocketName = folder.Path() + "/eve.socket";
    param.extLogSocketName = folder.Path() + "/log.socket";
    param.pcapDirPath = folder.Path() + "/pcaps";
    std::filesystem::create_directory(param.pcapDirPath);
  }
  ~EngineTest() override { manager.SetHangs(false); }

  void Start() {
    EngineSurroundings surroundings{services, manager, counters,
                                    [](uint32_t) -> std::optional<std::string> { return "alice"; },
                                    [this] { started = true; }};
    engine = std::make_unique<IdsEvtEngine>(param, surroundings);
    ASSERT_EQ(engine->Start(), 0);
    clock.Settle();
  }

  void SendWithoutWaiting(const std::string& text) {
    if (!sender) {
      sender.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      ASSERT_EQ(zem::ConnectUnix(sender.get(), param.idsSocketName), 0);
    }
    ASSERT_EQ(::send(sender.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }
  /// One datagram; what the engine does with it at once is done when this returns.
  void Send(const std::string& text) {
    SendWithoutWaiting(text);
    clock.Settle();
  }
  void Seconds(int seconds) { clock.RunFor(std::chrono::seconds(seconds)); }

  /// A capture's file, last written `age_s` seconds ago.
  std::string CaptureFile(uint64_t flow, const std::string& bytes = "packets", int64_t age_s = 0) {
    const std::string path = param.pcapDirPath + "/" + std::to_string(flow) + ".9.pcap";
    std::ofstream(path) << bytes;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(clock.WallNow().time_since_epoch());
    const timespec at{now.count() - age_s, 0};
    const timespec times[2] = {at, at};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return path;
  }

  zem::VirtualClock clock;
  zem::test::LogCapture log{zem::kLogDebug};
  zem::test::TempDir folder;
  IdsParam param;
  IdsCounters counters;
  ManagerStub manager;
  ServicesStub services;
  std::atomic<bool> started{false};
  std::unique_ptr<IdsEvtEngine> engine;
  zem::UniqueFd sender;
};

}  // namespace IdsEvtEng
