#pragma once

#include <string>

#include "app/zema/manager/zem_manager.h"

namespace zem::zema {

/// A road to the manager on which no message about a VIF gets away.
class NoVifs final : public VifSender {
 public:
  bool SendVIFAttachmentInfo(const Attachment&, std::string*) override { return false; }
  bool SendVIFUpdate(const Update&) override { return false; }
  bool SendVIFRestoreResponse(const RestoreResponse&) override { return false; }
};

}  // namespace zem::zema
