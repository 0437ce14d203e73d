#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

namespace IdsEvtEng {

struct IdsEvent;

/// The events of one round, of which those that tell of the same attack are one.
///
/// Threads: one owner.
class EventMerge {
 public:
  /// `most` events will come at most.
  explicit EventMerge(size_t most);
  ~EventMerge();
  EventMerge(const EventMerge&) = delete;
  EventMerge& operator=(const EventMerge&) = delete;

  /// Adds the event's bytes and count to the first one that is like it, or keeps it.
  void Add(std::unique_ptr<IdsEvent> event);

  /// Events that were added.
  size_t added() const { return added_; }
  /// The kept ones, in the order of arrival.
  std::vector<std::unique_ptr<IdsEvent>>& events() { return events_; }

 private:
  struct Hash {
    size_t operator()(const IdsEvent* event) const;
  };
  struct Alike {
    bool operator()(const IdsEvent* left, const IdsEvent* right) const;
  };

  std::vector<std::unique_ptr<IdsEvent>> events_;
  std::unordered_set<IdsEvent*, Hash, Alike> seen_;
  size_t added_ = 0;
};

}  // namespace IdsEvtEng
