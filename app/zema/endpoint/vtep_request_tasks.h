#pragma once

#include <memory>
#include <string>

#include "app/zema/endpoint/endpoint_context.h"
#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

/// Has the datapath restore a failed endpoint; tries once and answers in any case.
///
/// Threads: the host configurations' worker, so that the two never run at the same time.
class VtepRecoveryTask final : public MpaMessageTask<orlane::zem::switching::VTEPRecoveryRequestMsg> {
 public:
  VtepRecoveryTask(std::shared_ptr<EndpointContext> context, std::string correlation_id, std::string reply_to,
                   orlane::zem::switching::VTEPRecoveryRequestMsg request);
  void Run() override;
  bool IsBatchable() const override { return false; }

 private:
  const std::shared_ptr<EndpointContext> context_;
};

/// Takes an endpoint up or down; tries once and answers in any case.
class VtepAdminStateTask final : public MpaMessageTask<orlane::zem::switching::VTEPAdminStateMgmtRequestMsg> {
 public:
  VtepAdminStateTask(std::shared_ptr<EndpointContext> context, std::string correlation_id,
                     std::string reply_to, orlane::zem::switching::VTEPAdminStateMgmtRequestMsg request);
  void Run() override;
  bool IsBatchable() const override { return false; }

 private:
  const std::shared_ptr<EndpointContext> context_;
};

/// Makes one task for each switch of the request; each task answers with the current addresses.
void VtepIPSync(const std::shared_ptr<EndpointContext>& context, const std::string& reply_to,
                const orlane::zem::switching::VtepIPSyncMsg& request);

}  // namespace zem::zema
