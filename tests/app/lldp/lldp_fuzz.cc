#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>

#include "app/lldp/lldp_qub.h"
#include "framework/hostapi/lum_client.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/core/unix_socket.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "tests/support/silent_log.h"
#include "tests/support/temp_dir.h"

namespace {

using zem::Tarvik::LldpQub;
using zem::Tarvik::LumClient;
using zem::Tarvik::LumLink;

// Answers the question of each connection with the bytes that it was given, and ends.
class Host {
 public:
  explicit Host(const std::string& path) : listener_(zem::OpenUnixStream()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, zem::kMaxUnixPath);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener_.get(), 1) != 0) {
      std::abort();
    }
    zem::NativeThread([this] { Serve(); }).Detach();
  }

  void SetAnswer(std::string answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

 private:
  void Serve() {
    for (;;) {
      const zem::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char question[64];
      if (::recv(client.get(), question, sizeof(question), 0) <= 0) continue;
      const std::lock_guard lock(mutex_);
      static_cast<void>(::send(client.get(), answer_.data(), answer_.size(), MSG_NOSIGNAL) == 0);
    }
  }

  const zem::UniqueFd listener_;
  std::mutex mutex_;  // guards answer_
  std::string answer_;
};

}  // namespace

// What a host may answer to a question: header and data, of any length, whole or not.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  static const zem::test::TempDir directory;
  static Host& host = *new Host(directory.Path("lum"));
  static zem::AsioZemProvider& provider = *new zem::AsioZemProvider();
  static const boost::intrusive_ptr<zem::WorkGroup> group(
      new zem::WorkGroup("lldp", provider.metrics(), zem::WorkGroup::kUnbounded));
  static const boost::intrusive_ptr<LumClient> client(new LumClient(provider, group));
  static const boost::intrusive_ptr<LumLink> link(new LumLink(directory.Path("lum")));
  static const boost::intrusive_ptr<LldpQub> qub(new LldpQub(provider, group, client, link));
  host.SetAnswer(std::string(reinterpret_cast<const char*>(data), size));
  if (!link->OpenLumSocket()) std::abort();
  std::string answer;
  const int length = qub->RpcCommand("rpcquery", "", &answer);
  if (length > static_cast<int>(LldpQub::kBufferSize)) std::abort();
  if (length >= 0 &&
      (answer.size() != static_cast<size_t>(length) || answer.starts_with("error: rpc command")))
    std::abort();
  link->CloseLumSocket();
  return 0;
}
