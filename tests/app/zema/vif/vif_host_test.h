#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/hostlib/port_props.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/migration/migration_record.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/vifqueue/resync_state.h"
#include "app/zema/vifqueue/vif_port_handler.h"
#include "framework/tasks/thread.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/app/zema/ports/switch_host_test.h"
#include "tests/app/zema/state/no_publisher.h"

namespace zem::zema {

/// The manager's end: answers each attach and detach by what is scripted, in order; nothing is silence.
class ScriptedManager final : public VifSender {
 public:
  using Answer = std::optional<PortAttached>;

  bool SendVIFAttachmentInfo(const Attachment& attachment, std::string*) override {
    if (hold > Duration::zero()) SleepFor(std::exchange(hold, Duration::zero()));
    const std::lock_guard lock(mutex_);
    asked.push_back(attachment);
    if (!reachable) return false;
    Answer answer;
    if (!script.empty()) {
      answer = std::move(script.front());
      script.pop_front();
    }
    if (!answer) return true;
    // From a thread of its own, as the receive thread is: the caller holds its monitor.
    answers_.emplace_back([this, rpc_id = attachment.rpc_id, answer] {
      manager->SetResultToPendingRPC(rpc_id, std::make_unique<PortAttached>(*answer));
    });
    return true;
  }
  bool SendVIFUpdate(const Update& update) override {
    updates.push_back(update);
    return reachable;
  }
  bool SendVIFRestoreResponse(const RestoreResponse& response) override {
    if (const auto act = std::exchange(while_answering, nullptr)) act();
    restored.push_back(response);
    return true;
  }

  std::deque<Answer> script;
  bool reachable = true;
  /// The next send takes so long.
  Duration hold{};
  std::vector<Attachment> asked;
  std::vector<Update> updates;
  std::vector<RestoreResponse> restored;
  /// What happens while the next outcome of a restoration is on its way.
  std::function<void()> while_answering;
  ZemManager* manager = nullptr;

 private:
  std::mutex mutex_;  // guards the script and what was asked
  std::list<NativeThread> answers_;
};

/// A host with two switches, a scripted manager, and the handler between them.
class VifHostTest : public SwitchHostTest {
 protected:
  VifHostTest() {
    road.manager = &manager;
    host.SetHostId("host-1");
    health.setZemaLumReady();
  }

  static PortAttached Port(const std::string& port, const std::string& zone = "z1",
                           const std::string& ls = kLs) {
    PortAttached answer;
    answer.port_id = port;
    answer.zone_id = zone;
    answer.switch_id = ls;
    return answer;
  }
  static PortAttached Moved(PortAttached to, const std::string& port, const std::string& zone,
                            const std::string& ls) {
    to.old_port_id = port;
    to.old_zone_id = zone;
    to.old_switch_id = ls;
    return to;
  }
  static PortAttached Refusal(const std::string& error) {
    PortAttached answer;
    answer.error = error;
    return answer;
  }

  VifRequest Request(int32_t kind, const std::string& vif = kVif, const std::string& ls = kLs,
                     const std::string& vm = "vm1") const {
    VifRequest request;
    request.op_code = kind;
    request.op_id = "op-7-1";
    request.vif_id = vif;
    request.ls_id = ls;
    request.gcf_path = Vm(vm);
    return request;
  }
  static VifRequest FromHost(VifRequest request) {
    request.request = std::make_shared<CorvdRequest>();
    request.host_op_code = request.op_code;
    return request;
  }

  class Server final : public Thread {
   public:
    Server(VifHandler& handler, VifRequest& request)
        : Thread(true, nullptr, 0), handler_(handler), request_(request) {}
    ~Server() override { StopAndJoin(); }
    void Stop() override {}
    void Run() override {
      Lock();
      handler_.DoVifPortOperation(request_, *this);
      Unlock();
    }

   private:
    VifHandler& handler_;
    VifRequest& request_;
  };

  void Do(VifRequest& request) {
    Server server(handler, request);
    server.Start();
    server.Join();
  }
  VifRequest Done(VifRequest request) {
    Do(request);
    return request;
  }
  /// Attached, with nothing to wonder about.
  void Attach(const std::string& vif, const std::string& port, const std::string& zone = "z1",
              const std::string& ls = kLs, const std::string& vm = "vm1") {
    road.script.push_back(Port(port, zone, ls));
    ASSERT_EQ(Done(Request(VifRequest::kAttach, vif, ls, vm)).error_text, "");
    road.asked.clear();
    log.Clear();
  }

  std::string VifOf(const std::string& dvs, const std::string& port) const {
    return Property(dvs, port, port_props::kExternalId);
  }
  std::string PendingOf(const std::string& dvs, const std::string& port) const {
    return Property(dvs, port, port_props::kPortOpPending);
  }

  VirtualClock clock;
  ScriptedManager road;
  HostIdentity host;
  OptionsStore options;
  ZemManager manager{road, host, options};
  MigrationRecord migration;
  ResyncState resync;
  NoPublisher publisher;
  HealthRecord health{publisher, false};
  Synchronizable port_lock;
  StopSignal ending;
  VifContext context{ports, manager, lum, host, port_lock, ending};
  const VifPortHandler::Surroundings around{road, migration, resync, health, options};
  VifPortHandler handler{std::make_shared<VifContext>(context), around};
};

}  // namespace zem::zema
