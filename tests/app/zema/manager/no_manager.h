#pragma once

#include <string>

#include "app/zema/manager/zem_manager.h"
#include "app/zema/state/realization_options.h"
#include "framework/node/host_identity.h"

namespace zem::zema {

/// The calls of a host without an id, whose manager cannot be reached.
class NoManager {
 private:
  class NoRoad final : public VifSender {
   public:
    bool SendVIFAttachmentInfo(const Attachment&, std::string*) override { return false; }
    bool SendVIFUpdate(const Update&) override { return false; }
    bool SendVIFRestoreResponse(const RestoreResponse&) override { return false; }
  };
  NoRoad road_;
  HostIdentity host_;
  OptionsStore options_;

 public:
  ZemManager calls{road_, host_, options_};
};

}  // namespace zem::zema
