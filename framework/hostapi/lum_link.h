#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/core/clock.h"
#include "platform/core/long_mutex.h"
#include "platform/core/ref_counted.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// One Unix socket to the python process that has the host's management API.  The owner of the process
/// connects and closes it; a client asks, waits and reads the answer, one exchange after the other.
///
/// An operation that fails takes the link down and tells the owner, once for each connection.  While the link
/// is down, every operation returns false at once.
///
/// Threads: one exchange at a time; all else from any thread.  `CloseLumSocket` and `Stop` end an operation
/// that is waiting.  The callbacks run with no lock held.
class LumLink : public RefCounted<LumLink, IRefCountable> {
 public:
  static constexpr int kUp = 0;
  static constexpr int kDown = 1;
  using StatusCallback = std::function<void(LumLink* link, int status)>;
  using ErrorCallback = std::function<void(LumLink* link)>;

  /// `status_callback` may be empty.
  explicit LumLink(std::string path, StatusCallback status_callback = nullptr);
  ~LumLink() override;
  LumLink(const LumLink&) = delete;
  LumLink& operator=(const LumLink&) = delete;

  /// Connects, for a minute at most.  Returns true when the link is up.
  [[nodiscard]] virtual bool OpenLumSocket();
  virtual void CloseLumSocket();
  /// kUp or kDown.
  virtual int GetStatus() const { return status_; }

  const std::string& path() const { return path_; }
  void SetErrorCallback(ErrorCallback callback);
  /// Ends what waits, a connection attempt too, for good.
  void Stop();

  /// Begins an exchange: writes all of it within 3 seconds.
  [[nodiscard]] bool Send(const void* data, size_t length);
  /// Waits until there is something to read.
  [[nodiscard]] bool WaitResponse(int seconds);
  /// Reads exactly `length` bytes, which have to come within 3 seconds.  `received` may be null.
  [[nodiscard]] bool Recv(void* buffer, size_t length, int* received = nullptr);

  /// For a client that was answered with nonsense: the same as an operation that fails.
  void Break();

  /// Takes the failure of the present connection, which then is not there any more.  A failure ends with its
  /// connection: nobody needs to heal what has been closed meanwhile.
  [[nodiscard]] bool TakeFailure();

 private:
  /// The descriptor for an operation of the exchange that is under way; -1 when there is none.  `mutex_` is
  /// held.
  int Connection();
  /// Takes the link down, unless the connection ends for another reason than this operation.  `mutex_` is
  /// held.
  [[nodiscard]] bool Fail();
  void TellFailure();

  const std::string path_;
  const StatusCallback status_callback_;
  const UniqueFd stop_;  // readable from Stop on
  std::atomic<int> status_{kDown};

  LongMutex mutex_;         // held over each operation on the connection
  uint64_t exchange_ = 0;   // the connection on which the exchange began; 0: none; guarded by mutex_
  std::mutex state_mutex_;  // guards all below; after mutex_
  ErrorCallback error_callback_;
  UniqueFd socket_;
  uint64_t connection_ = 0;  // counts them
  bool closing_ = false;     // somebody waits for the running operation in order to close
  bool failed_ = false;      // an operation on this connection has failed and nobody has taken that yet
};

}  // namespace zem::Tarvik
