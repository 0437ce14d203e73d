#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "tests/platform/rpc/echo.rpc.h"

namespace zem::rpc {

using orlane::zem::testing::EchoMsg;
using orlane::zem::testing::EchoService;
using orlane::zem::testing::OtherService;
using orlane::zem::testing::SumMsg;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// What happened, in order, by all threads.
class Journal {
 public:
  void Add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<std::string> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// Writes "NAME next TEXT" and "NAME status CODE"; deletes itself at the end.
template <class Response>
class JournalObserver final : public CallObserver<Response> {
 public:
  JournalObserver(Journal& journal, std::string name, std::function<void(const Status&)> then = {})
      : journal_(journal), name_(std::move(name)), then_(std::move(then)) {}

  void Next(const Response& message) override {
    if constexpr (std::is_same_v<Response, SumMsg>) {
      journal_.Add(name_ + " next " + std::to_string(message.count()));
    } else {
      journal_.Add(name_ + " next " + message.text());
    }
  }
  void CallStatus(const Status& status) override {
    journal_.Add(name_ + " status " + std::to_string(status.code()));
    if (then_) then_(status);
    delete this;
  }

 private:
  Journal& journal_;
  const std::string name_;
  const std::function<void(const Status&)> then_;
};

/// Answers by the request's text: "hold" keeps the handle, "drop" drops it, "throw" throws, "fail" closes
/// with NOT_FOUND, "keep" gives the writable hook the handle; everything else is echoed with the service's
/// name in front.
class EchoServer : public EchoService::Service {
 public:
  EchoServer(Journal& journal, std::string name) : journal_(journal), name_(std::move(name)) {}

  void Echo(ServerContext& context, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    if (request.text() == "drop") {
      HookClose(context, "drop");
      return;
    }
    if (request.text() == "throw") throw std::runtime_error("as asked");
    if (request.text() == "fail") {
      EXPECT_TRUE(call.Close(AppStatus::NOT_FOUND, "nothing here"));
      EXPECT_FALSE(call.Close(AppStatus::NOT_FOUND)) << "a call ends once";
      return;
    }
    if (request.text() == "hold") {
      HookClose(context, "hold");
      std::lock_guard lock(mutex_);
      held_.push_back(std::move(call));
      return;
    }
    if (request.text().starts_with("keep")) {
      const auto kept = std::make_shared<CallHandle<EchoMsg>>(call);
      kept_by_hook_ = kept;
      if (request.text() == "keep") context.SetOnWritable([kept] {});
      EchoMsg answer;
      answer.set_text("kept");
      call.Finish(answer);
      if (request.text() != "keep") context.SetOnWritable([kept] {});
      return;
    }
    if (request.text() == "who") {
      EchoMsg answer;
      answer.set_text(context.client_id() + " at " + context.target_id());
      for (const auto& [key, value] : context.headers())
        answer.mutable_text()->append(" " + key + "=" + value);
      call.Finish(answer);
      return;
    }
    EchoMsg answer;
    answer.set_text(name_ + ":" + request.text());
    answer.set_payload(request.payload());
    EXPECT_TRUE(call.Write(answer)) << "of a unary call it is the final message";
  }

  void Count(ServerContext& context, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    HookClose(context, "count");
    for (uint32_t i = 0; i < request.number(); ++i) {
      EchoMsg answer;
      answer.set_text(std::to_string(i));
      call.Write(answer);
    }
    if (request.text() == "hold") {
      std::lock_guard lock(mutex_);
      held_.push_back(std::move(call));
    } else {
      call.Close(Status());
    }
  }

  std::unique_ptr<RequestObserver<EchoMsg>> Sum(ServerContext&, CallHandle<SumMsg> call) override {
    class Summing final : public RequestObserver<EchoMsg> {
     public:
      explicit Summing(CallHandle<SumMsg> call) : call_(std::move(call)) {}
      void Next(const EchoMsg& message) override {
        sum_.set_count(sum_.count() + 1);
        sum_.set_bytes(sum_.bytes() + message.payload().size());
      }
      void End(const Status& status) override {
        if (status.ok()) call_.Finish(sum_);
      }

     private:
      CallHandle<SumMsg> call_;
      SumMsg sum_;
    };
    return std::make_unique<Summing>(std::move(call));
  }

  std::unique_ptr<RequestObserver<EchoMsg>> Talk(ServerContext&, CallHandle<EchoMsg> call) override {
    class Talking final : public RequestObserver<EchoMsg> {
     public:
      Talking(Journal& journal, CallHandle<EchoMsg> call) : journal_(journal), call_(std::move(call)) {}
      void Next(const EchoMsg& message) override {
        if (message.text() == "throw") throw std::runtime_error("as asked");
        call_.Write(message);
      }
      void End(const Status& status) override {
        journal_.Add("talk end " + std::to_string(status.code()));
        if (status.ok()) call_.Close(Status());
      }

     private:
      Journal& journal_;
      CallHandle<EchoMsg> call_;
    };
    return std::make_unique<Talking>(journal_, std::move(call));
  }

  std::weak_ptr<void> kept_by_hook() const { return kept_by_hook_; }

  std::vector<CallHandle<EchoMsg>> TakeHeld() {
    std::lock_guard lock(mutex_);
    return std::exchange(held_, {});
  }

 private:
  void HookClose(ServerContext& context, const std::string& what) {
    context.SetOnClose(
        [this, what](const Status& status) { journal_.Add(what + " " + std::to_string(status.code())); });
  }

  Journal& journal_;
  const std::string name_;
  std::mutex mutex_;  // guards held_
  std::vector<CallHandle<EchoMsg>> held_;
  std::weak_ptr<void> kept_by_hook_;
};

inline EchoMsg Text(const std::string& text, uint32_t number = 0) {
  EchoMsg message;
  message.set_text(text);
  message.set_number(number);
  return message;
}

/// A server and a client, each with a provider, over memory and a clock in hand.
class RpcTest : public ::testing::Test {
 protected:
  static constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

  RpcTest() {
    server_provider_.RunAsync(1);
    client_provider_.RunAsync(1);
  }
  ~RpcTest() override { Shutdown(); }

  void Shutdown() {
    client_provider_.StopAndWait(true);
    server_provider_.StopAndWait(true);
  }

  void Serve(ConnectionOptions options = {}) {
    server_ = ServerBuilder(server_provider_.rpc())
                  .AddListeningEndpoint(net::Endpoint(kEndpoint), std::move(options))
                  .AddLocalEndpointId("Alarms")
                  .RegisterService(echo_)
                  .BuildStarted();
  }

  template <class Stub = EchoService::Stub>
  std::optional<Stub> MakeStub(AsioZemProvider& provider, const std::string& target, int* status = nullptr,
                               int64_t timeout_ms = 10000) {
    std::optional<Stub> made;
    int code = -1;
    StubRequest request;
    request.source_id = "me";
    request.target = net::Endpoint(target);
    request.timeout_ms = timeout_ms;
    provider.rpc().stubs().create<Stub>(request, [&](std::optional<Stub> stub, const Status& s) {
      made = std::move(stub);
      code = s.code();
    });
    clock_.RunFor(milliseconds(timeout_ms));
    if (status != nullptr) *status = code;
    EXPECT_NE(code, -1) << "the creator's callback has to come";
    return made;
  }
  EchoService::Stub Stub() {
    auto stub = MakeStub(client_provider_, kEndpoint, nullptr, 100);
    EXPECT_TRUE(stub);
    return stub.value_or(EchoService::Stub());
  }

  JournalObserver<EchoMsg>* Observe(const std::string& name, std::function<void(const Status&)> then = {}) {
    return new JournalObserver<EchoMsg>(journal_, name, std::move(then));
  }

  VirtualClock clock_;
  MemoryNetwork network_;
  // Of the two sides: what they do at the same moment has no order between them.
  Journal journal_;
  Journal server_journal_;
  AsioZemProvider server_provider_;
  AsioZemProvider client_provider_;
  std::shared_ptr<EchoServer> echo_ = std::make_shared<EchoServer>(server_journal_, "store");
  std::unique_ptr<Server> server_;
};

}  // namespace zem::rpc
