#pragma once

#include <cstdint>
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

/// The node's dataplane agent: serves one client at a time on a stream socket, keeps what comes, sends what
/// it is told to, well-formed or not.
///
/// Threads: all operations from any thread.
class DataplaneAgent {
 public:
  /// Bodies above it are a fault of the sender: the connection ends.
  static constexpr uint32_t kMaxFrame = 16 * 1024 * 1024;
  /// Frames that are kept; the oldest go first.
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
    /// Clients that were taken since the agent was made.
    uint64_t connections;
    uint64_t received;
    /// What ended the last connection; empty while there was none.
    std::string last_end;
  };

  /// Listens at `path`.  Throws std::system_error when it cannot.
  explicit DataplaneAgent(std::string path);
  ~DataplaneAgent();
  DataplaneAgent(const DataplaneAgent&) = delete;
  DataplaneAgent& operator=(const DataplaneAgent&) = delete;

  /// Closes the connection and the socket, as the end of the process would; the socket's file stays.
  void Die();
  /// Listens again, at another path if one is given.  False when it listens already.  Throws
  /// std::system_error.
  bool Return(const std::string& path = {});

  /// Writes bytes as they are, one by one if `byte_by_byte`.  Empty, or why they did not all go out; a client
  /// that does not take them within 5 seconds is such a reason.
  std::string Send(std::string_view bytes, bool byte_by_byte);
  /// False when there is no client.
  bool CloseClient();
  /// While off, what the client sends stays in its socket.
  void SetReading(bool on);

  State state() const;
  /// Frames with a number above `after`, oldest first.
  std::vector<Frame> Received(uint64_t after) const;

 private:
  using Client = std::shared_ptr<SharedSocket>;

  void Listen(const std::string& path);
  void Serve();
  void Accept();
  void Read(const Client& client);
  // False when what came is not a frame.
  bool TakeFrames();
  void EndClient(const Client& client, const std::string& why);
  void Wake();

  UniqueFd wake_;

  mutable std::mutex mutex_;  // guards what follows
  std::string path_;
  std::shared_ptr<SharedSocket> listener_;
  Client client_;
  bool reading_ = true;
  bool stopping_ = false;
  uint64_t connections_ = 0;
  uint64_t last_number_ = 0;
  std::string last_end_;
  std::string unread_;  // of the client, less than a frame
  std::vector<Frame> frames_;
  NativeThread thread_;
};

}  // namespace zem::sim
