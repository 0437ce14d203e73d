#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem {
class SharedSocket;
}

namespace zem::sim {

/// The header of a frame of the link: the fragment bit and seven reserved bits, the type, and the length of
/// header and body together, big-endian.
struct DataplaneHeader {
  static constexpr size_t kSize = 6;

  uint8_t bits = 0;
  uint8_t type = 1;
  uint32_t length = kSize;

  std::string Bytes() const;
};

/// The node's dataplane agent: serves one client at a time on a stream socket, keeps the frames it receives,
/// and sends any frame or bytes on request, well-formed or not.
///
/// Threads: all operations from any thread.
class DataplaneAgent {
 public:
  /// Largest accepted body; a frame with a longer one ends the connection.
  static constexpr uint32_t kMaxFrame = 16 * 1024 * 1024;
  /// Number of frames that are kept; the oldest are dropped first.
  static constexpr size_t kMaxKept = 10000;

  struct Frame {
    uint64_t number;
    DataplaneHeader header;
    std::string body;
  };

  struct State {
    std::string path;
    bool listening;
    bool connected;
    bool reading;
    /// Clients accepted since the agent was constructed.
    uint64_t connections;
    uint64_t received;
    /// Why the last connection ended; empty when none has ended.
    std::string last_end;
  };

  /// What else follows the link; runs on the agent's thread and only queues.
  struct Observer {
    std::function<void(const Frame& frame)> frame;
    std::function<void()> end;
  };

  /// Listens at `path`.  Throws std::system_error when it cannot.
  explicit DataplaneAgent(std::string path);
  ~DataplaneAgent();
  DataplaneAgent(const DataplaneAgent&) = delete;
  DataplaneAgent& operator=(const DataplaneAgent&) = delete;

  /// Closes the connection and the listener, as when the process ends; the socket file stays.
  void Die();
  /// Listens again, at another path if one is given.  Returns false when it already listens.  Throws
  /// std::system_error.
  bool Return(const std::string& path = {});

  /// Writes the bytes unchanged, one by one if `byte_by_byte`.  Returns an empty text, or why not all were
  /// sent; a client that does not accept them within 5 seconds is such a reason.
  std::string Send(std::string_view bytes, bool byte_by_byte);
  /// Returns false when no client is connected.
  bool CloseClient();
  /// While off, the agent does not read, so the client's data stays in the socket.
  void SetReading(bool on);

  /// No call of the observer of before is running when this returns.
  void SetObserver(Observer observer);

  State state() const;
  /// The frames whose number is greater than `after`, oldest first.
  std::vector<Frame> Received(uint64_t after) const;

 private:
  using Client = std::shared_ptr<SharedSocket>;

  void Listen(const std::string& path);
  void Serve();
  void Accept();
  void Read(const Client& client);
  // Returns false when the received bytes are not a frame.
  bool TakeFrames();
  void EndClient(const Client& client, const std::string& why);
  void Wake();

  UniqueFd wake_;

  std::mutex observer_mutex_;  // guards observer_, held over its calls; taken before mutex_
  Observer observer_;

  mutable std::mutex mutex_;  // guards what follows
  std::string path_;
  std::shared_ptr<SharedSocket> listener_;
  Client client_;
  bool reading_ = true;
  bool stopping_ = false;
  uint64_t connections_ = 0;
  uint64_t last_number_ = 0;
  std::string last_end_;
  std::string unread_;  // bytes received from the client that are not a whole frame yet
  std::vector<Frame> frames_;
  NativeThread thread_;
};

}  // namespace zem::sim
