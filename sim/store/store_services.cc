#include "sim/store/store_services.h"

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "platform/rpc/server.h"
#include "proto/covedb/covedb.rpc.h"
#include "proto/daemon/daemon.rpc.h"
#include "sim/store/store.h"
#include "sim/store/store_faults.h"

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using rpc::CallHandle;
using rpc::ServerContext;
using rpc::Status;

// An answer to a client that has disconnected is refused.  That is ignored: the call has ended with the
// connection.
template <class Response>
void Answer(CallHandle<Response>& call, const Status& status, const Response& response) {
  [[maybe_unused]] const bool taken = status.ok() ? call.Finish(response) : call.Close(status);
}

// Serves one call of `method` unless a fault prevents it; `serve` fills the response.
template <class Request, class Response, class Serve>
void ServeCall(StoreFaults& faults, const char* method, const Request& request, CallHandle<Response> call,
               Serve serve) {
  faults.NoteRequest(method, request);
  if (faults.PassAtOnce(method)) {
    Response response;
    const Status status = serve(request, response);
    return Answer(call, status, response);
  }
  faults.Pass(method, [request, call, serve](int code) mutable {
    Response response;
    const Status status = code == 0 ? serve(request, response) : Status(code, "as the fault says");
    Answer(call, status, response);
  });
}

template <class Response>
void SpoilObjects(StoreFaults& faults, const char* method, Response& response) {
  if (!faults.TakeGarbage(method)) return;
  if (response.object().empty()) response.add_object();
  for (proto::TypedObjectMsg& object : *response.mutable_object()) object.set_object(kGarbage);
}

class StreamSink final : public MonitorSink {
 public:
  explicit StreamSink(CallHandle<proto::MonitorResponseMsg> call) : call_(std::move(call)) {}

  bool Write(const proto::MonitorResponseMsg& response) override { return call_.Write(response); }
  void Close(const Status& status) override { [[maybe_unused]] const bool taken = call_.Close(status); }

  std::atomic<bool> ended{false};

 private:
  CallHandle<proto::MonitorResponseMsg> call_;
};

class CoveDbService final : public proto::CoveDb::Service {
 public:
  CoveDbService(std::shared_ptr<Store> store, std::shared_ptr<StoreFaults> faults)
      : store_(std::move(store)), faults_(std::move(faults)) {}

  void Get(ServerContext&, const proto::GetRequestMsg& request,
           CallHandle<proto::GetResponseMsg> call) override {
    ServeCall(*faults_, "Get", request, std::move(call),
              [store = store_, faults = faults_](const auto& asked, proto::GetResponseMsg& response) {
                Status status = store->Get(asked, &response);
                SpoilObjects(*faults, "Get", response);
                return status;
              });
  }

  void Query(ServerContext&, const proto::QueryRequestMsg& request,
             CallHandle<proto::QueryResponseMsg> call) override {
    ServeCall(*faults_, "Query", request, std::move(call),
              [store = store_, faults = faults_](const auto& asked, proto::QueryResponseMsg& response) {
                Status status = store->Query(asked, &response);
                SpoilObjects(*faults, "Query", response);
                return status;
              });
  }

  std::unique_ptr<rpc::RequestObserver<proto::ModifyRequestMsg>> Modify(
      ServerContext& context, CallHandle<proto::ModifyResponseMsg> call) override {
    const auto ended = std::make_shared<std::atomic<bool>>(false);
    context.SetOnClose([ended](const Status&) { *ended = true; });
    return std::make_unique<Batch>(store_, faults_, std::move(call), ended);
  }

  void CreateVDb(ServerContext&, const proto::CreateVDbRequestMsg& request,
                 CallHandle<proto::CreateVDbResponseMsg> call) override {
    ServeCall(*faults_, "CreateVDb", request, std::move(call),
              [store = store_](const auto& asked, proto::CreateVDbResponseMsg& response) {
                uint16_t vdb_id = 0;
                Status status = store->CreateVDb(asked.name(), &vdb_id);
                response.set_vdb_id(vdb_id);
                return status;
              });
  }

  void DeleteVDb(ServerContext&, const proto::DeleteVDbRequestMsg& request,
                 CallHandle<proto::DeleteVDbResponseMsg> call) override {
    ServeCall(*faults_, "DeleteVDb", request, std::move(call),
              [store = store_](const auto& asked, proto::DeleteVDbResponseMsg&) {
                return store->DeleteVDb(asked.name());
              });
  }

  void GetVDbId(ServerContext&, const proto::GetVDbIdRequestMsg& request,
                CallHandle<proto::GetVDbIdResponseMsg> call) override {
    ServeCall(*faults_, "GetVDbId", request, std::move(call),
              [store = store_](const auto& asked, proto::GetVDbIdResponseMsg& response) {
                for (const auto& [id, name] : store->VDbs()) {
                  if (asked.has_name() && asked.name() != name) continue;
                  proto::VDbMsg* const vdb = response.add_vdb();
                  vdb->set_name(name);
                  vdb->set_vdb_id(id);
                }
                return Status();
              });
  }

  void Monitor(ServerContext& context, const proto::MonitorRequestMsg& request,
               CallHandle<proto::MonitorResponseMsg> call) override {
    const auto sink = std::make_shared<StreamSink>(std::move(call));
    const std::weak_ptr<StreamSink> weak = sink;
    context.SetOnClose([weak, store = store_](const Status&) {
      if (const auto closed = weak.lock()) {
        closed->ended = true;
        store->streams().Ended(*closed);
      }
    });
    context.SetOnWritable([weak, store = store_] {
      if (const auto writable = weak.lock()) store->streams().Writable(*writable);
    });
    faults_->NoteRequest("Monitor", request);
    faults_->Pass("Monitor", [store = store_, sink, request, client = context.client_id()](int code) {
      if (code != 0) {
        sink->Close(Status(code, "as the fault says"));
      } else if (!sink->ended) {
        store->Monitor(client, request, sink);
      }
    });
  }

  void ConfigureMonitor(ServerContext& context, const proto::ConfigureMonitorRequestMsg& request,
                        CallHandle<proto::ConfigureMonitorResponseMsg> call) override {
    ServeCall(*faults_, "ConfigureMonitor", request, std::move(call),
              [store = store_, client = context.client_id()](const auto& asked,
                                                             proto::ConfigureMonitorResponseMsg& response) {
                return store->ConfigureMonitor(client, asked, &response);
              });
  }

 private:
  // Collects a batch; it is applied when it is complete.
  class Batch final : public rpc::RequestObserver<proto::ModifyRequestMsg> {
   public:
    Batch(std::shared_ptr<Store> store, std::shared_ptr<StoreFaults> faults,
          CallHandle<proto::ModifyResponseMsg> call, std::shared_ptr<std::atomic<bool>> ended)
        : store_(std::move(store)),
          faults_(std::move(faults)),
          call_(std::move(call)),
          ended_(std::move(ended)) {}

    void Next(const proto::ModifyRequestMsg& message) override {
      faults_->NoteRequest("Modify", message);
      batch_.push_back(message);
    }

    void End(const Status& status) override {
      if (!status.ok()) return;  // the client aborted the call: nothing of the batch is applied
      auto batch = std::make_shared<std::vector<proto::ModifyRequestMsg>>(std::move(batch_));
      faults_->Pass("Modify", [store = store_, call = call_, ended = ended_, batch](int code) mutable {
        // The client has sent the batch again on another connection, perhaps with later writes, so this copy
        // is too old to be applied.
        if (*ended) return;
        const Status result = code == 0 ? store->Modify(*batch) : Status(code, "as the fault says");
        Answer(call, result, proto::ModifyResponseMsg());
      });
    }

   private:
    const std::shared_ptr<Store> store_;
    const std::shared_ptr<StoreFaults> faults_;
    CallHandle<proto::ModifyResponseMsg> call_;
    const std::shared_ptr<std::atomic<bool>> ended_;
    std::vector<proto::ModifyRequestMsg> batch_;
  };

  const std::shared_ptr<Store> store_;
  const std::shared_ptr<StoreFaults> faults_;
};

class CoveDbOpsService final : public proto::CoveDbOps::Service {
 public:
  CoveDbOpsService(std::shared_ptr<Store> store, std::shared_ptr<StoreFaults> faults)
      : store_(std::move(store)), faults_(std::move(faults)) {}

  void GetSchemaVersion(ServerContext&, const proto::GetSchemaVersionRequestMsg& request,
                        CallHandle<proto::GetSchemaVersionResponseMsg> call) override {
    ServeCall(*faults_, "GetSchemaVersion", request, std::move(call),
              [store = store_](const auto&, proto::GetSchemaVersionResponseMsg& response) {
                response.set_version(store->SchemaVersion());
                return Status();
              });
  }

  void GetSchema(ServerContext&, const proto::GetSchemaRequestMsg& request,
                 CallHandle<proto::GetSchemaResponseMsg> call) override {
    ServeCall(*faults_, "GetSchema", request, std::move(call),
              [store = store_](const auto&, proto::GetSchemaResponseMsg& response) {
                response.set_schema(store->Schema());
                response.set_version(store->SchemaVersion());
                return Status();
              });
  }

 private:
  const std::shared_ptr<Store> store_;
  const std::shared_ptr<StoreFaults> faults_;
};

class HealthService final : public daemon::DaemonHealth::Service {
 public:
  explicit HealthService(std::shared_ptr<StoreFaults> faults) : faults_(std::move(faults)) {}

  void Echo(ServerContext&, const daemon::EchoMsg& request, CallHandle<daemon::EchoMsg> call) override {
    ServeCall(*faults_, "Echo", request, std::move(call),
              [](const daemon::EchoMsg& asked, daemon::EchoMsg& response) {
                response = asked;
                return Status();
              });
  }

  void GetVersion(ServerContext&, const orlane::zem::VoidMsg& request,
                  CallHandle<orlane::zem::ProductVersionMsg> call) override {
    ServeCall(*faults_, "GetVersion", request, std::move(call),
              [](const auto&, orlane::zem::ProductVersionMsg& response) {
                response.set_major(3);
                response.set_minor(2);
                return Status();
              });
  }

 private:
  const std::shared_ptr<StoreFaults> faults_;
};

}  // namespace

void RegisterStoreServices(rpc::ServerBuilder& builder, std::shared_ptr<Store> store,
                           std::shared_ptr<StoreFaults> faults) {
  builder.RegisterService(std::make_shared<CoveDbService>(store, faults));
  builder.RegisterService(std::make_shared<CoveDbOpsService>(store, faults));
  builder.RegisterService(std::make_shared<HealthService>(faults));
}

}  // namespace zem::sim
