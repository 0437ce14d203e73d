#include "platform/rpc/memory_network.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stream/memory_streams.h"
#include "platform/rpc/stream/strand.h"

namespace zem::rpc {
namespace {

// What a socket's buffers would hold; a writer beyond it waits.
constexpr size_t kPipeLimit = 256 << 10;

using Accepted = std::function<void(std::shared_ptr<ByteStream>, std::shared_ptr<Strand>)>;

// Both directions of one connection, and who waits at each end.
struct Pair {
  struct End {
    std::string incoming;  // bytes not read yet
    std::shared_ptr<Strand> strand;
    char* space = nullptr;
    size_t space_size = 0;
    std::shared_ptr<ByteStreamReader> reader;  // waits for bytes
    std::shared_ptr<ByteStreamReader> writer;  // waits for room at the other end
    bool closed = false;
  };

  // Gives waiting readers and writers what there is for them.  Under `mutex`.
  void Move() {
    for (int side = 0; side < 2; ++side) {
      End& end = ends[side];
      const End& other = ends[1 - side];
      const bool over = broken || other.closed;
      if (end.reader && !end.closed && !frozen && (over || !end.incoming.empty())) {
        const size_t size = broken ? 0 : std::min(end.space_size, end.incoming.size());
        if (size > 0) {
          std::memcpy(end.space, end.incoming.data(), size);
          end.incoming.erase(0, size);
        }
        end.strand->Post([reader = std::exchange(end.reader, nullptr), size] { reader->OnRead(size); });
      }
      if (end.writer && (over || other.incoming.size() < kPipeLimit)) {
        end.strand->Post([writer = std::exchange(end.writer, nullptr)] { writer->OnWritable(); });
      }
    }
  }

  std::mutex mutex;  // guards all below
  End ends[2];
  bool broken = false;
  bool frozen = false;
};

class MemoryStream final : public ByteStream {
 public:
  MemoryStream(std::shared_ptr<Pair> pair, int side, std::string text)
      : pair_(std::move(pair)), side_(side), text_(std::move(text)) {}
  ~MemoryStream() override { MemoryStream::Close(); }

  void Read(char* data, size_t size, std::shared_ptr<ByteStreamReader> reader) override {
    std::lock_guard lock(pair_->mutex);
    Pair::End& end = pair_->ends[side_];
    end.space = data;
    end.space_size = size;
    end.reader = std::move(reader);
    pair_->Move();
  }

  ssize_t TryWrite(const char* data, size_t size) override {
    std::lock_guard lock(pair_->mutex);
    Pair::End& other = pair_->ends[1 - side_];
    if (pair_->broken || other.closed || pair_->ends[side_].closed) return -1;
    const size_t room = kPipeLimit - std::min(kPipeLimit, other.incoming.size());
    const size_t taken = std::min(size, room);
    other.incoming.append(data, taken);
    pair_->Move();
    return static_cast<ssize_t>(taken);
  }

  void WaitWritable(std::shared_ptr<ByteStreamReader> reader) override {
    std::lock_guard lock(pair_->mutex);
    pair_->ends[side_].writer = std::move(reader);
    pair_->Move();
  }

  void Close() override {
    std::shared_ptr<ByteStreamReader> reader;
    std::shared_ptr<ByteStreamReader> writer;
    std::lock_guard lock(pair_->mutex);
    Pair::End& end = pair_->ends[side_];
    end.closed = true;
    reader = std::move(end.reader);
    writer = std::move(end.writer);
    pair_->Move();
  }

  const std::string& text() const override { return text_; }

 private:
  const std::shared_ptr<Pair> pair_;
  const int side_;
  const std::string text_;
};

struct Listening {
  AsioZemProvider& provider;
  Accepted accepted;
};

struct Connected {
  std::string endpoint;
  std::weak_ptr<Pair> pair;
};

// Shared with listeners and attempts, which may outlive the network.
struct Network {
  std::mutex mutex;  // guards all below
  std::map<std::string, std::shared_ptr<Listening>> listeners;
  std::vector<Connected> connected;
  std::set<std::string> away;
  std::set<std::string> frozen;
  uint16_t next_port = 20000;
  uint64_t connections_made = 0;

  template <class Function>
  void ForEach(const std::string& endpoint, Function function) {
    std::vector<std::shared_ptr<Pair>> pairs;
    {
      std::lock_guard lock(mutex);
      for (const Connected& entry : connected) {
        if (entry.endpoint != endpoint) continue;
        if (auto pair = entry.pair.lock()) pairs.push_back(std::move(pair));
      }
    }
    for (const auto& pair : pairs) {
      std::lock_guard lock(pair->mutex);
      function(*pair);
    }
    // Only now does anybody hear of it: a process dies with all its connections at once.
    for (const auto& pair : pairs) {
      std::lock_guard lock(pair->mutex);
      pair->Move();
    }
  }
};

std::mutex installed_mutex;
std::shared_ptr<Network> installed;

std::shared_ptr<Network> Installed() {
  std::lock_guard lock(installed_mutex);
  return installed;
}

class MemoryConnect final : public ConnectAttempt, public std::enable_shared_from_this<MemoryConnect> {
 public:
  explicit MemoryConnect(StreamDone done) : done_(std::move(done)) {}

  void Cancel() override {
    StreamDone dropped;
    std::lock_guard lock(mutex_);
    dropped = std::move(done_);
    done_ = nullptr;
  }

  void Run(Network& network, AsioZemProvider& provider, const std::string& endpoint) {
    StreamDone done;
    {
      std::lock_guard lock(mutex_);
      done = std::move(done_);
      done_ = nullptr;
    }
    if (!done) return;
    auto near = std::make_shared<Strand>(provider.io());
    std::shared_ptr<Listening> listening;
    const auto pair = std::make_shared<Pair>();
    std::string name;
    {
      std::lock_guard lock(network.mutex);
      const auto found = network.listeners.find(endpoint);
      if (found != network.listeners.end() && network.away.count(endpoint) == 0) {
        listening = found->second;
        pair->frozen = network.frozen.count(endpoint) != 0;
        auto& all = network.connected;
        all.erase(std::remove_if(all.begin(), all.end(), [](const Connected& c) { return c.pair.expired(); }),
                  all.end());
        all.push_back({endpoint, pair});
        name = "tcp://memory:" + std::to_string(++network.connections_made);
      }
    }
    if (!listening) {
      done(nullptr, near, "connection refused");
      return;
    }
    auto far = std::make_shared<Strand>(listening->provider.io());
    pair->ends[0].strand = near;
    pair->ends[1].strand = far;
    auto accepted = std::make_shared<MemoryStream>(pair, 1, name + " <-> " + endpoint);
    listening->provider.dispatcher().Post([listening, accepted, far] { listening->accepted(accepted, far); });
    done(std::make_shared<MemoryStream>(pair, 0, endpoint + " <-> " + name), near, "");
  }

 private:
  std::mutex mutex_;  // guards done_
  StreamDone done_;
};

class MemoryListener final : public StreamListener {
 public:
  MemoryListener(std::shared_ptr<Network> network, AsioZemProvider& provider, const net::Endpoint& endpoint,
                 Accepted accepted)
      : network_(std::move(network)), text_(endpoint.text()), port_(endpoint.port()) {
    std::lock_guard lock(network_->mutex);
    if (port_ == 0) {
      port_ = ++network_->next_port;
      text_ = text_.substr(0, text_.rfind(':') + 1) + std::to_string(port_);
    }
    const auto entry = std::make_shared<Listening>(Listening{provider, std::move(accepted)});
    if (!network_->listeners.emplace(text_, entry).second) {
      throw std::system_error(std::make_error_code(std::errc::address_in_use), "cannot listen on " + text_);
    }
  }
  ~MemoryListener() override { MemoryListener::Close(); }

  uint16_t port() const override { return port_; }
  void Close() override {
    std::shared_ptr<Listening> dropped;
    std::lock_guard lock(network_->mutex);
    if (std::exchange(closed_, true)) return;
    const auto found = network_->listeners.find(text_);
    dropped = std::move(found->second);
    network_->listeners.erase(found);
  }

 private:
  const std::shared_ptr<Network> network_;
  std::string text_;
  uint16_t port_;
  bool closed_ = false;
};

}  // namespace

bool MemoryStreams::Exist() { return Installed() != nullptr; }

std::shared_ptr<ConnectAttempt> MemoryStreams::Connect(AsioZemProvider& provider,
                                                       const net::Endpoint& endpoint, StreamDone done) {
  auto attempt = std::make_shared<MemoryConnect>(std::move(done));
  provider.dispatcher().Post([attempt, network = Installed(), &provider, text = endpoint.text()] {
    attempt->Run(*network, provider, text);
  });
  return attempt;
}

std::unique_ptr<StreamListener> MemoryStreams::Listen(AsioZemProvider& provider,
                                                      const net::Endpoint& endpoint, Accepted accepted) {
  return std::make_unique<MemoryListener>(Installed(), provider, endpoint, std::move(accepted));
}

class MemoryNetwork::Impl {
 public:
  const std::shared_ptr<Network> network = std::make_shared<Network>();
};

MemoryNetwork::MemoryNetwork() : impl_(std::make_unique<Impl>()) {
  std::lock_guard lock(installed_mutex);
  assert(!installed && "one memory network at a time");
  installed = impl_->network;
}

MemoryNetwork::~MemoryNetwork() {
  std::lock_guard lock(installed_mutex);
  installed = nullptr;
}

void MemoryNetwork::Break(const std::string& endpoint) {
  impl_->network->ForEach(endpoint, [](Pair& pair) {
    pair.broken = true;
    pair.frozen = false;
  });
}

void MemoryNetwork::SetAway(const std::string& endpoint, bool away) {
  std::lock_guard lock(impl_->network->mutex);
  if (away) {
    impl_->network->away.insert(endpoint);
  } else {
    impl_->network->away.erase(endpoint);
  }
}

void MemoryNetwork::Freeze(const std::string& endpoint, bool frozen) {
  {
    std::lock_guard lock(impl_->network->mutex);
    if (frozen) {
      impl_->network->frozen.insert(endpoint);
    } else {
      impl_->network->frozen.erase(endpoint);
    }
  }
  impl_->network->ForEach(endpoint, [frozen](Pair& pair) { pair.frozen = frozen; });
}

size_t MemoryNetwork::connections(const std::string& endpoint) const {
  size_t count = 0;
  impl_->network->ForEach(endpoint, [&count](Pair& pair) {
    if (!pair.broken && !pair.ends[0].closed && !pair.ends[1].closed) ++count;
  });
  return count;
}

}  // namespace zem::rpc
