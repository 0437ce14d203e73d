#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "platform/rpc/call_state.h"

namespace zem::rpc {

/// The calls of a connection by deadline: a binary heap whose members know their places, so that the end of a
/// call takes it out at once.  Does not own.
class DeadlineHeap {
 public:
  TimePoint first() const { return heap_.empty() ? TimePoint::max() : heap_.front()->deadline_; }
  CallState* front() const { return heap_.front(); }

  /// Returns false when the call has no deadline.
  bool Insert(CallState& call) {
    if (call.deadline_ == TimePoint::max()) return false;
    heap_.push_back(&call);
    call.deadline_slot_ = heap_.size() - 1;
    Up(call.deadline_slot_);
    return true;
  }

  void Remove(CallState& call) {
    const size_t at = call.deadline_slot_;
    if (at == CallState::kNotQueued) return;
    call.deadline_slot_ = CallState::kNotQueued;
    CallState* const last = heap_.back();
    heap_.pop_back();
    if (at == heap_.size()) return;
    heap_[at] = last;
    last->deadline_slot_ = at;
    Up(at);
    Down(last->deadline_slot_);
  }

 private:
  void Swap(size_t a, size_t b) {
    std::swap(heap_[a], heap_[b]);
    heap_[a]->deadline_slot_ = a;
    heap_[b]->deadline_slot_ = b;
  }
  void Up(size_t at) {
    for (; at > 0 && heap_[at]->deadline_ < heap_[(at - 1) / 2]->deadline_; at = (at - 1) / 2)
      Swap(at, (at - 1) / 2);
  }
  void Down(size_t at) {
    for (;;) {
      size_t least = at;
      for (const size_t child : {2 * at + 1, 2 * at + 2}) {
        if (child < heap_.size() && heap_[child]->deadline_ < heap_[least]->deadline_) least = child;
      }
      if (least == at) return;
      Swap(at, least);
      at = least;
    }
  }

  std::vector<CallState*> heap_;
};

}  // namespace zem::rpc
