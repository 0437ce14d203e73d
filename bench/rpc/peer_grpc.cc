#include <grpcpp/grpcpp.h>

#include <cstdlib>

#include "bench/rpc/bench.grpc.pb.h"
#include "bench/rpc/bench.h"
#include "bench/rpc/slow_pool.h"

namespace zem::bench {
namespace {

using orlane::zem::bench::BenchService;
using orlane::zem::bench::BytesMsg;
using orlane::zem::bench::StreamMsg;

class Service final : public BenchService::CallbackService {
 public:
  grpc::ServerUnaryReactor* Echo(grpc::CallbackServerContext* context, const BytesMsg* request,
                                 BytesMsg* response) override {
    auto* const reactor = context->DefaultReactor();
    *response = *request;
    if (request->slow_us() > 0) {
      pool_.After(std::chrono::microseconds(request->slow_us()),
                  [reactor] { reactor->Finish(grpc::Status::OK); });
    } else {
      reactor->Finish(grpc::Status::OK);
    }
    return reactor;
  }

  grpc::ServerWriteReactor<BytesMsg>* Stream(grpc::CallbackServerContext*,
                                             const StreamMsg* request) override {
    class Writer final : public grpc::ServerWriteReactor<BytesMsg> {
     public:
      explicit Writer(const StreamMsg& request) : left_(request.count()) {
        message_.set_payload(std::string(request.size(), 'x'));
        Step();
      }
      void OnWriteDone(bool) override { Step(); }
      void OnDone() override { delete this; }

     private:
      void Step() {
        if (left_ == 0) {
          Finish(grpc::Status::OK);
        } else {
          --left_;
          StartWrite(&message_, grpc::WriteOptions().set_buffer_hint());
        }
      }
      BytesMsg message_;
      uint32_t left_;
    };
    return new Writer(*request);
  }

 private:
  SlowPool pool_;
};

class Grpc final : public Subject {
 public:
  Grpc() {
    grpc::ServerBuilder builder;
    int port = 0;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
    channel_ = grpc::CreateChannel("127.0.0.1:" + std::to_string(port), grpc::InsecureChannelCredentials());
    if (!channel_->WaitForConnected(std::chrono::system_clock::now() + std::chrono::seconds(10)))
      std::abort();
    stub_ = BenchService::NewStub(channel_);
  }
  ~Grpc() override { server_->Shutdown(); }

  // The asynchronous client: one completion queue, one thread.
  EchoResult Echo(const EchoCase& c) override {
    struct Call {
      grpc::ClientContext context;
      BytesMsg response;
      grpc::Status status;
      std::unique_ptr<grpc::ClientAsyncResponseReader<BytesMsg>> reader;
      Instant start;
      bool slow;
    };
    grpc::CompletionQueue queue;
    EchoMeter meter(c);
    BytesMsg message;
    message.set_payload(std::string(c.size, 'x'));
    int left = c.calls;
    const auto start_one = [&] {
      if (left == 0) return;
      --left;
      auto* const call = new Call;
      call->slow = meter.NextIsSlow();
      message.set_slow_us(call->slow ? 5000 : 0);
      call->start = Now();
      call->reader = stub_->AsyncEcho(&call->context, message, &queue);
      call->reader->Finish(&call->response, &call->status, call);
    };
    meter.Begin();
    for (int i = 0; i < c.outstanding; ++i) start_one();
    while (meter.done() < c.calls) {
      void* tag = nullptr;
      bool ok = false;
      queue.Next(&tag, &ok);
      const std::unique_ptr<Call> call(static_cast<Call*>(tag));
      if (!ok || !call->status.ok() || call->response.payload().size() != c.size) std::abort();
      meter.Add(call->start, call->slow);
      start_one();
    }
    const EchoResult result = meter.End();
    queue.Shutdown();
    return result;
  }

  StreamResult Stream(uint32_t count, uint32_t size) override {
    StreamMsg request;
    request.set_count(count);
    request.set_size(size);
    grpc::ClientContext context;
    const double cpu = CpuUs();
    const Instant begun = Now();
    const auto reader = stub_->Stream(&context, request);
    BytesMsg message;
    uint32_t got = 0;
    while (reader->Read(&message)) ++got;
    if (!reader->Finish().ok() || got != count) std::abort();
    const double seconds = std::chrono::duration<double>(Now() - begun).count();
    return {count / seconds, (CpuUs() - cpu) / count};
  }

 private:
  Service service_;
  std::unique_ptr<grpc::Server> server_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<BenchService::Stub> stub_;
};

}  // namespace

std::unique_ptr<Subject> MakeGrpc() { return std::make_unique<Grpc>(); }

}  // namespace zem::bench
