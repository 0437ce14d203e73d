#include "platform/rpc/stream/flush_scope.h"

#include <utility>

namespace zem::rpc {
namespace {

thread_local FlushScope* current_scope = nullptr;

}  // namespace

FlushScope::FlushScope() : outer_(std::exchange(current_scope, this)) {}

FlushScope::~FlushScope() {
  current_scope = outer_;
  if (first_) first_->FlushGathered();
  for (const auto& sender : others_) sender->FlushGathered();
}

FlushScope* FlushScope::Current() { return current_scope; }

void FlushScope::Add(std::shared_ptr<Flushable> sender) {
  if (!first_) {
    first_ = std::move(sender);
  } else if (first_ != sender) {
    others_.push_back(std::move(sender));
  }
}

}  // namespace zem::rpc
