#pragma once

#include <functional>
#include <memory>

#include "app/zema/app/later_parts.h"

namespace zem::zema {

struct VifRequest;

/// What the manager asks of single ports, for the threads that serve the host's own requests.
class HostVifRequests final : public VifRequestSink {
 public:
  using AddRequest = std::function<void(std::shared_ptr<VifRequest>)>;

  /// `add_request` must not wait.
  explicit HostVifRequests(AddRequest add_request) : add_request_(std::move(add_request)) {}

  void Detach(const orlane::zem::switching::VifAttachmentMsg& vif) override;
  void Restore(const orlane::zem::switching::VifAttachmentMsg& vif) override;

 private:
  const AddRequest add_request_;
};

}  // namespace zem::zema
