#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <map>
#include <mutex>
#include <utility>

#include "platform/provider/timer.h"

namespace zem {

/// The timers of one io_context: one ordered map, one wake-up for its earliest entry.
class TimerQueue final : public TimerFactory, public std::enable_shared_from_this<TimerQueue> {
 public:
  explicit TimerQueue(boost::asio::io_context& io);

  std::shared_ptr<Timer> Schedule(Duration delay, std::function<void()> function) override;
  std::shared_ptr<Timer> ScheduleRepeated(Duration period, std::function<void()> function,
                                          const TimerOptions& options) override;

  /// Forgets all timers and takes no more.
  void Close();

 private:
  struct Entry;
  using Key = std::pair<TimePoint, uint64_t>;

  std::shared_ptr<Timer> Add(Duration delay, Duration period, std::function<void()> function);
  void Insert(const std::shared_ptr<Entry>& entry);
  void Cancel(Entry& entry);
  void Arm();
  void Expire();

  boost::asio::io_context& io_;
  std::mutex mutex_;  // guards all below
  bool closed_ = false;
  uint64_t last_id_ = 0;
  std::map<Key, std::shared_ptr<Entry>> entries_;
  TimePoint armed_ = TimePoint::max();
  uint64_t arming_ = 0;  // wake-ups of an older arming are void
  boost::asio::steady_timer wake_;
  Clock::AlarmId alarm_ = 0;
};

}  // namespace zem
