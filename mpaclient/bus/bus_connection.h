#pragma once

#include <boost/intrusive_ptr.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "mpaclient/bus/rmq_client.h"
#include "platform/core/clock.h"

namespace zem {

class AsioZemProvider;
class Timer;
namespace metrics {
class Frequency;
}

/// The connection of one vertical to its manager, as ACK and CLOSE records show it, and the bus road for a
/// vertical that uses the bus: attempts, retries and the cookie.
///
/// An attempt that is under way when the road ends finds another epoch when it comes back, and closes what it
/// has opened; timers of an older epoch do nothing.
///
/// Threads: all operations from any thread; timers run on the provider.  Held by shared pointers.
class BusConnection : public std::enable_shared_from_this<BusConnection> {
 public:
  /// The state word that is reported to operators.
  enum State : uint32_t { kDisconnected = 1, kConnected = 2 };

  struct Settings {
    std::string app_type;
    std::string app_id;
    uint32_t client_type = 0;
    /// False for a vertical whose records travel over RPC.
    bool over_bus = false;
    std::chrono::microseconds ack_timeout{};
    std::chrono::microseconds retry_timeout{};
    /// Receives the records of the bus.
    rmqClientCallback deliver = nullptr;
  };

  BusConnection(AsioZemProvider& provider, Settings settings, boost::intrusive_ptr<RmqClientInterface> bus);
  ~BusConnection();

  /// Connects to the bus, again and again until it succeeds.
  void ConnectMpaStateTrans();
  /// Closes the bus road and forgets the cookie.
  void End();
  /// Ends the road, if it is the bus, and releases the bus library.
  void Release();
  /// Returns 0 when the bus has taken the record.
  int Send(rmqClientMessage* message);

  /// The RPC road to the master is there, or has gone.
  void SetRoad(State state);
  /// An ACK record has arrived.
  void TakeAck();
  /// A CLOSE record has arrived.  Returns false, after a log line, when it belongs to another connection.
  bool TakeClose(int32_t cookie);

  /// Whether the last record of the two kinds was an ACK.
  bool acknowledged() const;
  State state() const;
  /// How long it has been in that state.
  Duration state_age() const;
  /// -1 when there is none.
  int32_t cookie() const;

 private:
  /// The two facts of a connection.  A vertical that was acknowledged stays so while its road is away, until
  /// a CLOSE arrives: another proxy may take its messages.
  enum class Status {
    kDown,                // neither road nor ACK
    kUp,                  // there is a road, the ACK is still to come
    kAcknowledged,        // the vertical is served
    kAcknowledgedNoRoad,  // the road has gone, the CLOSE has not come
  };

  static Status WithRoad(Status status, State state);
  bool IsAcknowledged() const {
    return status_ == Status::kAcknowledged || status_ == Status::kAcknowledgedNoRoad;
  }
  State state_word() const {
    return status_ == Status::kUp || status_ == Status::kAcknowledged ? kConnected : kDisconnected;
  }
  void SetStatusLocked(Status status);
  void Connect(uint64_t epoch);
  void EndRoad(boost::intrusive_ptr<RmqClientInterface>* released);
  void ScheduleTimer(std::chrono::microseconds delay, uint64_t epoch);

  AsioZemProvider& provider_;
  const Settings settings_;
  const char* const name_;
  metrics::Frequency& connections_;

  std::mutex connect_mutex_;  // one attempt at the bus at a time

  mutable std::shared_mutex mutex_;  // taken alone or after the attempt's; guards what follows
  boost::intrusive_ptr<RmqClientInterface> bus_;
  Status status_ = Status::kDown;
  TimePoint since_ = Clock::Process().Now();  // in the state that operators see
  int32_t cookie_ = -1;
  std::shared_ptr<Timer> reconnect_timer_;
  uint64_t epoch_ = 0;  // raised by each start and end
};

}  // namespace zem
