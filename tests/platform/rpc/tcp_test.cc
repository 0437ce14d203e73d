#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>

#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "platform/provider/provider.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/stub_factory.h"
#include "platform/rpc/transport.h"
#include "tests/platform/rpc/echo.rpc.h"

namespace zem::rpc {
namespace {

using orlane::zem::testing::EchoMsg;
using orlane::zem::testing::EchoService;
using orlane::zem::testing::SumMsg;
using std::chrono::seconds;

class Echoing final : public EchoService::Service {
 public:
  void Echo(ServerContext&, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    call.Finish(request);
  }
  void Count(ServerContext&, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    for (uint32_t i = 0; i < request.number(); ++i) call.Write(request);
    call.Close(Status(12, "enough"));
  }
  std::unique_ptr<RequestObserver<EchoMsg>> Sum(ServerContext&, CallHandle<SumMsg> call) override {
    class Summing final : public RequestObserver<EchoMsg> {
     public:
      explicit Summing(CallHandle<SumMsg> call) : call_(std::move(call)) {}
      void Next(const EchoMsg&) override { sum_.set_count(sum_.count() + 1); }
      void End(const Status& status) override {
        if (status.ok()) call_.Finish(sum_);
      }

     private:
      CallHandle<SumMsg> call_;
      SumMsg sum_;
    };
    return std::make_unique<Summing>(std::move(call));
  }
  std::unique_ptr<RequestObserver<EchoMsg>> Talk(ServerContext&, CallHandle<EchoMsg>) override {
    return nullptr;
  }
};

/// Waits on the real clock; no test waits longer than it must.
class Latch {
 public:
  void Count(int n = 1) {
    std::lock_guard lock(mutex_);
    count_ += n;
    changed_.NotifyAll();
  }
  bool WaitFor(int n) {
    std::unique_lock lock(mutex_);
    return changed_.WaitFor(lock, seconds(30), [&] { return count_ >= n; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  Condition changed_;
  int count_ = 0;
};

template <class Response>
class Counting final : public CallObserver<Response> {
 public:
  Counting(Latch& messages, Latch& ends, std::atomic<int>& code)
      : messages_(messages), ends_(ends), code_(code) {}
  void Next(const Response&) override { messages_.Count(); }
  void CallStatus(const Status& status) override {
    code_ = status.code();
    ends_.Count();
    delete this;
  }

 private:
  Latch& messages_;
  Latch& ends_;
  std::atomic<int>& code_;
};

class TcpTest : public ::testing::Test {
 protected:
  TcpTest() {
    server_ = ServerBuilder(server_provider_.rpc())
                  .AddListeningEndpoint(net::Endpoint("tcp://127.0.0.1:0"))
                  .RegisterService(std::make_shared<Echoing>())
                  .BuildStarted();
    server_provider_.RunAsync(2);
    client_provider_.RunAsync(2);
  }
  ~TcpTest() override {
    client_provider_.StopAndWait(true);
    server_provider_.StopAndWait(true);
  }

  net::Endpoint endpoint() const {
    return net::Endpoint("tcp://127.0.0.1:" + std::to_string(server_->port()));
  }

  std::optional<EchoService::Stub> MakeStub() {
    Latch made;
    std::optional<EchoService::Stub> result;
    StubRequest request;
    request.source_id = "me";
    request.target = endpoint();
    client_provider_.rpc().stubs().create<EchoService::Stub>(
        request, [&](std::optional<EchoService::Stub> stub, const Status&) {
          result = std::move(stub);
          made.Count();
        });
    EXPECT_TRUE(made.WaitFor(1));
    return result;
  }

  template <class Response = EchoMsg>
  CallObserver<Response>* Observe() {
    return new Counting<Response>(messages_, ends_, code_);
  }

  Latch messages_;
  Latch ends_;
  std::atomic<int> code_{-1};
  AsioZemProvider server_provider_;
  AsioZemProvider client_provider_;
  std::unique_ptr<Server> server_;
};

TEST_F(TcpTest, EveryKindOfCallWorksOverSockets) {
  auto stub = MakeStub();
  ASSERT_TRUE(stub);
  EchoMsg big;
  big.set_payload(std::string(8 << 20, 'x'));
  stub->Echo(ClientContext(), big, Observe());
  ASSERT_TRUE(ends_.WaitFor(1));
  EXPECT_EQ(code_, 0);

  EchoMsg request;
  request.set_number(5000);
  request.set_payload(std::string(1000, 'y'));
  stub->Count(ClientContext(), request, Observe());
  ASSERT_TRUE(ends_.WaitFor(2));
  EXPECT_EQ(code_, 12);
  EXPECT_EQ(messages_.count(), 5001);

  auto batch = std::make_shared<std::list<EchoMsg>>(10000, request);
  client::AsyncBatchCall(stub->channel(), EchoService::Stub::rpcmethod_Sum, ClientContext(), batch,
                         Observe<SumMsg>());
  ASSERT_TRUE(ends_.WaitFor(3));
  EXPECT_EQ(code_, 0);
}

// Whoever wins among answer, cancel, loss and stop: every call has one status, and the order of threads
// decides nothing else.  Meant for the thread sanitizer too.
TEST_F(TcpTest, OneStatusPerCallWhateverHappensWhen) {
  constexpr int kRounds = 20;
  constexpr int kThreads = 3;
  constexpr int kCalls = 100;
  int started = 0;
  for (int round = 0; round < kRounds; ++round) {
    auto stub = MakeStub();
    ASSERT_TRUE(stub);
    Latch begun;
    std::vector<NativeThread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, copy = *stub, seed = static_cast<unsigned>(round * kThreads + t)]() mutable {
        unsigned state = seed * 2654435761U + 1;
        for (int i = 0; i < kCalls; ++i) {
          state = state * 1664525U + 1013904223U;
          ClientContext context;
          if (state >> 30 == 0) context.set_timeout(std::chrono::milliseconds(1));
          EchoMsg request;
          request.set_number(3);
          auto handle = (state >> 24) % 2 == 0 ? copy.Echo(context, request, Observe())
                                               : copy.Count(context, request, Observe());
          if ((state >> 20) % 4 == 0) handle.Cancel();
          begun.Count();
        }
      });
    }
    started += kThreads * kCalls;
    if (round % 4 == 1) {
      begun.WaitFor(kThreads * kCalls / 2);
      ConnectionManager adopt(client_provider_.rpc());
      adopt.RequestConnection(endpoint(), ConnectionParams());
      adopt.TeardownConnection(endpoint());
    }
    if (round % 4 == 2) stub.reset();
    threads.clear();
    stub.reset();
    ASSERT_TRUE(ends_.WaitFor(started)) << "round " << round << ": " << ends_.count() << " of " << started;
  }
  client_provider_.StopAndWait(true);
  EXPECT_EQ(ends_.count(), started);
}

size_t OpenDescriptors() {
  size_t count = 0;
  DIR* const folder = ::opendir("/proc/self/fd");
  while (::readdir(folder) != nullptr) ++count;
  ::closedir(folder);
  return count;
}

TEST_F(TcpTest, ConnectingAndTearingDownLeaksNoDescriptor) {
  size_t before = 0;
  ConnectionManager manager(client_provider_.rpc());
  for (int round = 0; round < 2000; ++round) {
    if (round == 10) before = OpenDescriptors();
    Latch up;
    Latch down;
    ConnectionParams params;
    params.on_connected = [&](const ConnectionInfo&) { up.Count(); };
    params.on_closed = [&](CloseReason) { down.Count(); };
    ASSERT_TRUE(manager.RequestConnection(endpoint(), params));
    ASSERT_TRUE(up.WaitFor(1));
    ASSERT_TRUE(manager.TeardownConnection(endpoint()));
    ASSERT_TRUE(down.WaitFor(1));
  }
  // The accepting side closes a moment later; a leak would have left thousands.
  EXPECT_LE(OpenDescriptors(), before + 20);
}

/// A peer made of nothing but a socket: the wire form as README.md writes it, byte by byte.
class RawClient {
 public:
  explicit RawClient(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  // Up to where the peer closes, which shows when it is received from.
  void Send(const std::string& bytes) {
    for (const char c : bytes) {
      if (::send(fd_.get(), &c, 1, MSG_NOSIGNAL) != 1) return;
    }
  }

  // Sends `bytes` up to `times`; gives how many are on their way when the peer takes no more.
  size_t SendWhileTaken(const std::string& bytes, size_t times) {
    for (size_t sent = 0; sent < times; ++sent) {
      for (size_t at = 0; at < bytes.size();) {
        const ssize_t size =
            ::send(fd_.get(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size > 0) {
          at += static_cast<size_t>(size);
          continue;
        }
        pollfd wait{fd_.get(), POLLOUT, 0};
        if (::poll(&wait, 1, 500) == 0) return sent;
        if ((wait.revents & (POLLERR | POLLHUP)) != 0) return times;
      }
    }
    return times;
  }

  // Exactly `size` bytes, or what came before the end.
  std::string Receive(size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      char buffer[4096];
      pollfd wait{fd_.get(), POLLIN, 0};
      if (::poll(&wait, 1, 30000) <= 0) break;
      const ssize_t got = ::recv(fd_.get(), buffer, std::min(sizeof(buffer), size - bytes.size()), 0);
      if (got <= 0) break;
      bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
  }

  // A frame as text: "TYPE FLAGS CODE CHANNEL CALL:PAYLOAD", or "end".
  std::string ReceiveFrame() {
    const std::string header = Receive(16);
    if (header.size() < 16) return "end";
    const auto u = [&header](size_t at) {
      return static_cast<unsigned>(static_cast<unsigned char>(header[at]));
    };
    const unsigned length = u(0) << 24 | u(1) << 16 | u(2) << 8 | u(3);
    const std::string payload = Receive(length);
    return std::to_string(u(4)) + " " + std::to_string(u(5)) + " " + std::to_string(u(6) << 8 | u(7)) + " " +
           std::to_string(u(8) << 24 | u(9) << 16 | u(10) << 8 | u(11)) + " " +
           std::to_string(u(12) << 24 | u(13) << 16 | u(14) << 8 | u(15)) + ":" + (u(4) == 1 ? "" : payload);
  }

 private:
  UniqueFd fd_;
};

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) bytes.push_back(static_cast<char>(value));
  return bytes;
}

std::string Hello() {
  return Bytes({0, 0, 0, 7, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}) +
         Bytes({0x0d, 0x31, 0x4d, 0x45, 0x5a, 0x10, 1});  // magic 0x5a454d31, version 1
}

std::string Open(int channel, const std::string& service, uint64_t fingerprint) {
  const std::string target = "tcp://127.0.0.1:1";
  std::string payload = Bytes({0x0a, 3}) + "raw" + Bytes({0x12, static_cast<int>(target.size())}) + target +
                        Bytes({0x1a, static_cast<int>(service.size())}) + service + Bytes({0x21});
  for (int i = 0; i < 8; ++i) payload.push_back(static_cast<char>(fingerprint >> (8 * i)));
  return Bytes({0, 0, 0, static_cast<int>(payload.size()), 3, 0, 0, 0, 0, 0, 0, channel, 0, 0, 0, 0}) +
         payload;
}

TEST_F(TcpTest, TheWireFormIsTheDocumentedOne) {
  const uint64_t fingerprint = EchoService::kInfo.fingerprint;
  RawClient raw(server_->port());
  raw.Send(Hello());
  EXPECT_EQ(raw.ReceiveFrame(), "1 0 0 0 0:");
  raw.Send(Open(1, "orlane.zem.testing.EchoService", fingerprint));
  EXPECT_EQ(raw.ReceiveFrame(), "4 0 0 1 0:");
  raw.Send(Open(3, "orlane.zem.testing.EchoService", fingerprint + 1));
  EXPECT_EQ(raw.ReceiveFrame(), "4 0 51 3 0:") << "another fingerprint";
  // CALL of method 0, no deadline, one last message {text: "hi"}.
  raw.Send(Bytes({0, 0, 0, 8, 6, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1}) + Bytes({0, 0, 0, 0, 0x0a, 2}) + "hi");
  EXPECT_EQ(raw.ReceiveFrame(), "8 0 0 1 1:" + Bytes({0x0a, 2}) + "hi");
  // The same with a deadline of a minute and headers {source_id: "x"}.
  raw.Send(Bytes({0, 0, 0, 15, 6, 3, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2}) + Bytes({0, 0, 0xea, 0x60, 0, 0, 0, 3}) +
           Bytes({0x0a, 1}) + "x" + Bytes({0x0a, 2}) + "ho");
  EXPECT_EQ(raw.ReceiveFrame(), "8 0 0 1 2:" + Bytes({0x0a, 2}) + "ho");
  // Method 1 answers with a stream and ends with 12 "enough".
  raw.Send(Bytes({0, 0, 0, 6, 6, 1, 0, 1, 0, 0, 0, 1, 0, 0, 0, 3}) + Bytes({0, 0, 0, 0, 0x10, 1}));
  EXPECT_EQ(raw.ReceiveFrame(), "7 0 0 1 3:" + Bytes({0x10, 1}));
  EXPECT_EQ(raw.ReceiveFrame(), "8 12 12 1 3:" + Bytes({0, 6}) + "enough");
  // Method 2 takes a stream: opened without a message, then two, the second one last.
  raw.Send(Bytes({0, 0, 0, 4, 6, 8, 0, 2, 0, 0, 0, 1, 0, 0, 0, 4}) + Bytes({0, 0, 0, 0}));
  raw.Send(Bytes({0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4}));
  raw.Send(Bytes({0, 0, 0, 0, 7, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4}));
  EXPECT_EQ(raw.ReceiveFrame(), "8 0 0 1 4:" + Bytes({0x08, 2}));
  // A method that does not exist, and a message that does not parse.
  raw.Send(Bytes({0, 0, 0, 4, 6, 1, 0, 9, 0, 0, 0, 1, 0, 0, 0, 5}) + Bytes({0, 0, 0, 0}));
  EXPECT_EQ(raw.ReceiveFrame().substr(0, 9), "8 12 51 1");
  raw.Send(Bytes({0, 0, 0, 5, 6, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 6}) + Bytes({0, 0, 0, 0, 0xff}));
  EXPECT_EQ(raw.ReceiveFrame().substr(0, 9), "8 12 52 1");
  raw.Send(Bytes({0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(raw.ReceiveFrame(), "11 0 0 0 0:");
}

constexpr char kAdded = 0x0a;
constexpr char kRemoved = 0x12;

// An IDS with `count` different ids of `size` bytes.
std::string Ids(char field, int count, size_t size) {
  std::string payload;
  for (int i = 0; i < count; ++i) {
    std::string id(size, 'x');
    for (size_t at = 0, left = static_cast<size_t>(i); at < std::min<size_t>(size, 3); ++at, left /= 64)
      id[at] = static_cast<char>('0' + left % 64);
    payload.push_back(field);
    if (size > 127) payload.push_back(static_cast<char>(0x80 | (size & 0x7f)));
    payload.push_back(static_cast<char>(size > 127 ? size >> 7 : size));
    payload += id;
  }
  std::string frame = Bytes({0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}) + payload;
  for (size_t at = 0; at < 4; ++at) frame[at] = static_cast<char>(payload.size() >> (24 - 8 * at));
  return frame;
}

// A peer that asks and does not read is not read from either; when it reads, every call has its end.
TEST_F(TcpTest, APeerThatDoesNotReadIsNotReadFrom) {
  RawClient raw(server_->port());
  raw.Send(Hello());
  raw.Send(Open(1, "orlane.zem.testing.EchoService", EchoService::kInfo.fingerprint));
  raw.ReceiveFrame();
  raw.ReceiveFrame();
  // Method 1 says the request's 64 KiB thirty times over.
  const std::string payload(64 << 10, 'x');
  std::string call = Bytes({0, 1, 0, 10, 6, 1, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0}) + Bytes({0, 0, 0, 0}) +
                     Bytes({0x10, 30, 0x1a, 0x80, 0x80, 4}) + payload;
  size_t calls = 0;
  size_t taken = 1;
  for (; taken == 1 && calls < 250; ++calls) {
    call[15] = static_cast<char>(calls + 1);
    taken = raw.SendWhileTaken(call, 1);
  }
  // What the kernel's own buffers take is less.
  ASSERT_LT(calls, 250u) << "16 MB were taken, with 480 MB of answers";
  // The last call is only half sent.
  const std::string last_end = "8 12 12 1 " + std::to_string(calls - 1) + ":";
  std::string frame;
  while (frame != "end" && !frame.starts_with(last_end)) frame = raw.ReceiveFrame();
  EXPECT_NE(frame, "end");
}

// Every one of these ends its connection, and only that: the last client is served as if nothing had been.
TEST_F(TcpTest, WhatTheProtocolDoesNotAllowEndsTheConnectionOnly) {
  const std::string open = Open(1, "orlane.zem.testing.EchoService", EchoService::kInfo.fingerprint);
  const std::string call = Bytes({0, 0, 0, 4, 6, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0});
  const std::string ping = Bytes({0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  std::string many_headers;
  for (int i = 0; i < (32 << 10) + 1; ++i) many_headers += Bytes({0x12, 0});
  struct Case {
    const char* what;
    std::string bytes;
    int frames;  // answers before the end
  };
  const std::vector<Case> cases = {
      {"no HELLO first", Bytes({0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1},
      {"HELLO over its limit", Bytes({0, 1, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1},
      {"HELLO of nothing", Bytes({0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1},
      {"HELLO twice", Hello() + Hello(), 1},
      {"unknown type", Hello() + Bytes({0, 0, 0, 0, 99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1},
      {"unknown flag", Hello() + Bytes({0, 0, 0, 0, 10, 64, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1},
      {"length of 4 GiB", Hello() + Bytes({255, 255, 255, 255, 7, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1}), 1},
      {"call on no channel", Hello() + call, 1},
      {"channel id of the other side", Hello() + Open(2, "x", 1), 1},
      {"channel opened twice", Hello() + open + open, 2},
      {"call id twice", Hello() + open + call + call, 3},
      {"call without its deadline",
       Hello() + open + Bytes({0, 0, 0, 1, 6, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0}), 2},
      {"headers longer than the frame", Hello() + open + Bytes({0, 0, 0, 8, 6, 3, 0, 0, 0,   0,   0,   1,
                                                                0, 0, 0, 1, 0, 0, 0, 0, 255, 255, 255, 255}),
       2},
      // Each of them is two bytes on the wire and a hundred in memory.
      {"headers over their limit",
       Hello() + open + Bytes({0, 1, 0, 10, 6, 3, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 2}) +
           many_headers,
       2},
      {"END from the caller", Hello() + open + Bytes({0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1}), 2},
      {"an id of 256 bytes", Hello() + Ids(kAdded, 1, 256), 1},
      {"an id too many", Hello() + Ids(kAdded, 1024, 2) + ping + Ids(kAdded, 1, 3), 2},
      // A frame has room for so many that looking for each among the others holds a thread for minutes.
      {"more ids at once than there may be", Hello() + Ids(kRemoved, 1025, 2) + ping, 1},
      {"OPENED for the peer's own", Hello() + open + Bytes({0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}),
       2},
  };
  for (const Case& c : cases) {
    RawClient raw(server_->port());
    raw.Send(c.bytes);
    for (int i = 0; i < c.frames; ++i) EXPECT_NE(raw.ReceiveFrame(), "end") << c.what << ", frame " << i;
    EXPECT_EQ(raw.ReceiveFrame(), "end") << c.what;
  }
  auto stub = MakeStub();
  ASSERT_TRUE(stub);
  stub->Echo(ClientContext(), EchoMsg(), Observe());
  ASSERT_TRUE(ends_.WaitFor(1));
  EXPECT_EQ(code_, 0);
}

TEST_F(TcpTest, APortInUseIsAnError) {
  ServerBuilder builder(client_provider_.rpc());
  builder.AddListeningEndpoint(endpoint());
  EXPECT_THROW(builder.BuildStarted(), std::system_error);
}

}  // namespace
}  // namespace zem::rpc
