// A living server against a peer that sends anything: whatever comes, it ends at most that connection.  The
// first byte chooses whether a sound introduction and a channel go ahead of the input.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/core/lib_log.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/rpc/memory_network.h"
#include "platform/rpc/stream/memory_streams.h"
#include "platform/rpc/stream/strand.h"
#include "platform/rpc/transport.h"
#include "platform/rpc/wire/frame.h"
#include "platform/rpc/wire/wire.pb.h"
#include "tests/platform/rpc/echo.rpc.h"

namespace zem::rpc {
namespace {

using orlane::zem::testing::EchoMsg;
using orlane::zem::testing::EchoService;
using orlane::zem::testing::SumMsg;

constexpr const char* kEndpoint = "tcp://127.0.0.1:2480";

class Service final : public EchoService::Service {
 public:
  void Echo(ServerContext&, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    call.Finish(request);
  }
  void Count(ServerContext&, const EchoMsg& request, CallHandle<EchoMsg> call) override {
    call.Write(request);
  }
  std::unique_ptr<RequestObserver<EchoMsg>> Sum(ServerContext&, CallHandle<SumMsg>) override {
    return nullptr;
  }
  std::unique_ptr<RequestObserver<EchoMsg>> Talk(ServerContext&, CallHandle<EchoMsg> call) override {
    class Talking final : public RequestObserver<EchoMsg> {
     public:
      explicit Talking(CallHandle<EchoMsg> call) : call_(std::move(call)) {}
      void Next(const EchoMsg& message) override { call_.Write(message); }
      void End(const Status& status) override { call_.Close(status); }

     private:
      CallHandle<EchoMsg> call_;
    };
    return std::make_unique<Talking>(std::move(call));
  }
};

std::string Frame(FrameType type, uint32_t channel, const std::string& payload) {
  FrameHeader header;
  header.type = type;
  header.channel = channel;
  header.length = static_cast<uint32_t>(payload.size());
  std::string bytes(kFrameHeaderSize, '\0');
  EncodeFrameHeader(header, bytes.data());
  return bytes + payload;
}

std::string Introduction(bool with_channel) {
  wire::HelloMsg hello;
  hello.set_magic(kMagic);
  hello.set_version(kVersion);
  hello.set_inbound(true);
  hello.add_ids("peer");
  std::string bytes = Frame(FrameType::kHello, 0, hello.SerializeAsString());
  if (!with_channel) return bytes;
  wire::OpenMsg open;
  open.set_source("peer");
  open.set_target("Echo");
  open.set_service(EchoService::kInfo.name);
  open.set_fingerprint(EchoService::kInfo.fingerprint);
  return bytes + Frame(FrameType::kOpen, 1, open.SerializeAsString());
}

// Reads and forgets, so that the server is never held up.
class Sink final : public ByteStreamReader, public std::enable_shared_from_this<Sink> {
 public:
  explicit Sink(std::shared_ptr<ByteStream> stream) : stream_(std::move(stream)) {}
  void OnRead(size_t size) override {
    if (size > 0) Read();
  }
  void OnWritable() override {}
  void Read() { stream_->Read(buffer_, sizeof(buffer_), shared_from_this()); }

 private:
  const std::shared_ptr<ByteStream> stream_;
  char buffer_[4096];
};

struct World {
  World() {
    LibraryLevel(Library::kRpc) = kLogOff;
    LibraryLevel(Library::kNet) = kLogOff;
    ConnectionOptions options;
    options.rpc.inbound = true;
    provider.rpc().EnableForwarding();
    server = ServerBuilder(provider.rpc())
                 .AddListeningEndpoint(net::Endpoint(kEndpoint), options)
                 .AddLocalEndpointId("Echo")
                 .RegisterService(std::make_shared<Service>())
                 .BuildStarted();
    provider.RunAsync(1);
  }
  VirtualClock clock;
  MemoryNetwork network;
  AsioZemProvider provider;
  std::unique_ptr<Server> server;
};

}  // namespace
}  // namespace zem::rpc

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::rpc;
  static auto* const world = new World;  // lives to the end of the process
  if (size < 1) return 0;
  std::string bytes = (data[0] & 1) != 0 ? Introduction((data[0] & 2) != 0) : "";
  bytes.append(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::shared_ptr<ByteStream> stream;
  const auto attempt =
      MemoryStreams::Connect(world->provider, zem::net::Endpoint(kEndpoint),
                             [&stream](std::shared_ptr<ByteStream> made, const std::shared_ptr<Strand>&,
                                       const std::string&) { stream = std::move(made); });
  world->clock.Settle();
  if (!stream) std::abort();
  std::make_shared<Sink>(stream)->Read();
  stream->TryWrite(bytes.data(), bytes.size());
  world->clock.RunFor(std::chrono::seconds(1));
  stream->Close();
  stream = nullptr;
  world->clock.Settle();
  if (world->network.connections(kEndpoint) != 0) std::abort();
  return 0;
}
