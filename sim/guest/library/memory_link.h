#pragma once

#include <mutex>

#include "sim/guest/library/world_link.h"
#include "sim/guest/world/guest_world.h"

namespace zem::sim::guest {

/// The way to a world of the same process.
class MemoryLink final : public WorldLink {
 public:
  explicit MemoryLink(GuestWorld& world) : world_(world) {}
  ~MemoryLink() override { Stop(); }

  void Start(uint64_t instance, uint32_t most_undelivered, std::function<void(const Event&)> sink) override {
    attachment_ = world_.Attach(instance, most_undelivered, std::move(sink));
  }
  void Stop() override { world_.Detach(attachment_); }
  std::optional<Answer> Ask(const Question& question) override { return world_.Ask(question); }

 private:
  GuestWorld& world_;
  uint64_t attachment_ = 0;
};

}  // namespace zem::sim::guest
