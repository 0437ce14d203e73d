#include "sim/inventory/inventory_daemon.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"
#include "sim/inventory/inventory_lines.h"

namespace zem::sim {
namespace {

constexpr auto kLong = std::chrono::hours(1);
constexpr size_t kMostRequests = 1000;
constexpr size_t kMostRequest = 4096;
constexpr int kBacklog = 4;

}  // namespace

InventoryDaemon::InventoryDaemon(HostInventory& host, std::string path, Duration look)
    : host_(host), path_(std::move(path)), look_(look), wake_(::eventfd(0, EFD_CLOEXEC)) {
  Start();
}

InventoryDaemon::~InventoryDaemon() { Stop(); }

bool InventoryDaemon::running() const {
  const std::lock_guard lock(mutex_);
  return thread_ != nullptr;
}

void InventoryDaemon::Start() {
  const std::lock_guard lock(mutex_);
  if (thread_ != nullptr) return;
  ::unlink(path_.c_str());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, kMaxUnixPath);
  listener_ = OpenUnixStream();
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
      ::listen(listener_.get(), kBacklog) < 0) {
    throw std::runtime_error("cannot listen on " + path_);
  }
  stopping_ = false;
  thread_ = std::make_unique<NativeThread>(NativeThread::Options{.name = "inventory"}, [this] { Serve(); });
}

void InventoryDaemon::Stop() {
  std::unique_ptr<NativeThread> thread;
  {
    const std::lock_guard lock(mutex_);
    thread = std::move(thread_);
  }
  if (thread == nullptr) return;
  stopping_ = true;
  const uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof(one)) == 0);
  thread->Join();
  uint64_t count = 0;
  static_cast<void>(::read(wake_.get(), &count, sizeof(count)) == 0);
  listener_.Reset();
  ::unlink(path_.c_str());
}

void InventoryDaemon::SetFaults(const Faults& faults) {
  const std::lock_guard lock(mutex_);
  faults_ = faults;
}

std::vector<std::string> InventoryDaemon::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void InventoryDaemon::Serve() {
  while (!stopping_) {
    pollfd waits[2] = {{listener_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (PollUntil(waits, 2, Clock::Process().Now() + kLong) <= 0 || waits[1].revents != 0) continue;
    const UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client) ServeClient(client.get());
  }
}

void InventoryDaemon::ServeClient(int client) {
  std::string received;
  while (!stopping_) {
    pollfd waits[2] = {{client, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (PollUntil(waits, 2, Clock::Process().Now() + kLong) <= 0 || waits[1].revents != 0) continue;
    char bytes[512];
    const ssize_t got = ::recv(client, bytes, sizeof(bytes), 0);
    if (got <= 0) return;
    received.append(bytes, static_cast<size_t>(got));
    if (received.size() > kMostRequest) return;
    for (size_t end = received.find('\n'); end != std::string::npos; end = received.find('\n')) {
      const std::string request = received.substr(0, end);
      received.erase(0, end + 1);
      if (!Answer(client, request)) return;
    }
  }
}

bool InventoryDaemon::Answer(int client, const std::string& request) {
  {
    const std::lock_guard lock(mutex_);
    if (requests_.size() == kMostRequests) requests_.erase(requests_.begin());
    requests_.push_back(request);
    if (request == "ping") {
      const bool seen = faults_.unseen == 0;
      if (!seen) --faults_.unseen;
      const std::string text = seen ? "Connected\n" : "Not connected\n";
      return ::send(client, text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }
  }
  const bool full = request == "FullSync";
  if (!full && request != "Updates") return Reply(client, {"done"});
  InventoryFacts now;
  const Lines lines = full ? FullSync(&now) : Updates(&now);
  if (!Reply(client, lines)) return false;
  const std::lock_guard lock(mutex_);
  told_ = std::move(now);
  return true;
}

bool InventoryDaemon::Reply(int client, const Lines& lines) {
  std::string text;
  bool cut = false;
  {
    const std::lock_guard lock(mutex_);
    if (faults_.noise > 0) {
      --faults_.noise;
      text = "Unknown=\xff\xfe\nNoise=" + std::string(3000, 'x') + "\n";
    }
    if (faults_.cut > 0) {
      --faults_.cut;
      cut = true;
    }
  }
  for (const std::string& line : lines) text += line + "\n";
  if (cut) text.resize(text.size() / 2);
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t part = ::send(client, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (part <= 0) return false;
    sent += static_cast<size_t>(part);
  }
  return !cut;
}

InventoryDaemon::Lines InventoryDaemon::FullSync(InventoryFacts* now) {
  *now = host_.Read();
  const std::lock_guard lock(mutex_);
  if (observer_) observer_(told_, *now);
  Lines lines;
  for (const auto& [id, vm] : told_.vms) {
    if (now->vms.count(id) == 0) AddVmLeave(vm, &lines);
  }
  AddHostBlock("enter", nullptr, now->host, &lines);
  for (const auto& [id, vm] : now->vms) AddVmBlock(vm, &lines);
  lines.emplace_back("done");
  return lines;
}

InventoryDaemon::Lines InventoryDaemon::Updates(InventoryFacts* now) {
  const TimePoint limit = Clock::Process().Now() + std::chrono::milliseconds(hold_ms_);
  for (;;) {
    *now = host_.Read();
    Lines lines;
    {
      const std::lock_guard lock(mutex_);
      if (told_.host != now->host) AddHostBlock("modify", &told_.host, now->host, &lines);
      for (const auto& [id, vm] : told_.vms) {
        if (now->vms.count(id) == 0) AddVmLeave(vm, &lines);
      }
      for (const auto& [id, vm] : now->vms) {
        const auto known = told_.vms.find(id);
        if (known == told_.vms.end()) {
          AddVmBlock(vm, &lines);
        } else {
          AddVmChange(known->second, vm, &lines);
        }
      }
    }
    if (!lines.empty() || stopping_ || Clock::Process().Now() >= limit) {
      lines.emplace_back("done");
      return lines;
    }
    pollfd wait{wake_.get(), POLLIN, 0};
    static_cast<void>(PollUntil(&wait, 1, Clock::Process().Now() + look_));
  }
}

}  // namespace zem::sim
