#include <future>

#include "bench/rpc/bench.h"
#include "bench/rpc/bench.rpc.h"
#include "bench/rpc/slow_pool.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"

namespace zem::bench {
namespace {

using orlane::zem::bench::BenchService;
using orlane::zem::bench::BytesMsg;
using orlane::zem::bench::StreamMsg;

class Service final : public BenchService::Service {
 public:
  void Echo(rpc::ServerContext&, const BytesMsg& request, rpc::CallHandle<BytesMsg> call) override {
    if (request.slow_us() > 0) {
      pool_.After(std::chrono::microseconds(request.slow_us()),
                  [call, copy = request]() mutable { call.Finish(copy); });
      return;
    }
    call.Finish(request);
  }

  // Writes until a write is refused, and continues when there is room.
  void Stream(rpc::ServerContext& context, const StreamMsg& request,
              rpc::CallHandle<BytesMsg> call) override {
    struct Writer {
      void Run() {
        while (left > 0 && call.Write(message)) --left;
        if (left == 0) call.Close(rpc::Status());
      }
      rpc::CallHandle<BytesMsg> call;
      BytesMsg message;
      uint32_t left;
    };
    auto writer = std::make_shared<Writer>();
    writer->call = std::move(call);
    writer->message.set_payload(std::string(request.size(), 'x'));
    writer->left = request.count();
    context.SetOnWritable([writer] { writer->Run(); });
    writer->Run();
  }

 private:
  SlowPool pool_;
};

class Ours final : public Subject {
 public:
  Ours() {
    server_ = rpc::ServerBuilder(server_provider_.rpc())
                  .AddListeningEndpoint(net::Endpoint("tcp://127.0.0.1:0"))
                  .RegisterService(std::make_shared<Service>())
                  .BuildStarted();
    server_provider_.RunAsync(1);
    client_provider_.RunAsync(1);
    std::promise<BenchService::Stub> made;
    rpc::StubRequest request;
    request.source_id = "bench";
    request.target = net::Endpoint("tcp://127.0.0.1:" + std::to_string(server_->port()));
    client_provider_.rpc().stubs().create<BenchService::Stub>(
        request, [&made](std::optional<BenchService::Stub> stub, const rpc::Status&) {
          made.set_value(stub.value());
        });
    stub_ = made.get_future().get();
  }
  ~Ours() override {
    client_provider_.StopAndWait(true);
    server_provider_.StopAndWait(true);
  }

  EchoResult Echo(const EchoCase& c) override {
    Loop loop{c, stub_, EchoMeter(c), c.calls, {}, {}};
    loop.message.set_payload(std::string(c.size, 'x'));
    loop.meter.Begin();
    client_provider_.dispatcher().Post([&loop] {
      for (int i = 0; i < loop.c.outstanding; ++i) loop.StartOne();
    });
    loop.finished.get_future().wait();
    return loop.meter.End();
  }

  StreamResult Stream(uint32_t count, uint32_t size) override {
    class Observer final : public rpc::CallObserver<BytesMsg> {
     public:
      Observer(std::promise<void>& finished, uint32_t count) : finished_(finished), left_(count) {}
      void Next(const BytesMsg&) override { --left_; }
      void CallStatus(const rpc::Status& status) override {
        if (!status.ok() || left_ != 0) std::abort();
        finished_.set_value();
        delete this;
      }

     private:
      std::promise<void>& finished_;
      uint32_t left_;
    };
    StreamMsg request;
    request.set_count(count);
    request.set_size(size);
    std::promise<void> finished;
    const double cpu = CpuUs();
    const Instant begun = Now();
    stub_.Stream(rpc::ClientContext(), request, new Observer(finished, count));
    finished.get_future().wait();
    const double seconds = std::chrono::duration<double>(Now() - begun).count();
    return {count / seconds, (CpuUs() - cpu) / count};
  }

 private:
  struct Loop {
    class Observer final : public rpc::CallObserver<BytesMsg> {
     public:
      Observer(Loop& loop, bool slow) : loop_(loop), slow_(slow), start_(Now()) {}
      void Next(const BytesMsg& message) override { ok_ = message.payload().size() == loop_.c.size; }
      void CallStatus(const rpc::Status& status) override {
        if (!status.ok() || !ok_) std::abort();
        loop_.meter.Add(start_, slow_);
        loop_.EndOne();
        delete this;
      }

     private:
      Loop& loop_;
      const bool slow_;
      bool ok_ = false;
      const Instant start_;
    };

    void StartOne() {
      if (left == 0) return;
      --left;
      const bool slow = meter.NextIsSlow();
      message.set_slow_us(slow ? 5000 : 0);
      stub.Echo(rpc::ClientContext(), message, new Observer(*this, slow));
    }
    void EndOne() {
      if (meter.done() == c.calls) {
        finished.set_value();
      } else {
        StartOne();
      }
    }

    const EchoCase c;
    BenchService::Stub& stub;
    EchoMeter meter;
    int left;
    BytesMsg message;
    std::promise<void> finished;
  };

  AsioZemProvider server_provider_;
  AsioZemProvider client_provider_;
  std::unique_ptr<rpc::Server> server_;
  BenchService::Stub stub_;
};

}  // namespace

std::unique_ptr<Subject> MakeOurs() { return std::make_unique<Ours>(); }

}  // namespace zem::bench
