#pragma once

#include "app/ctxteng/base/ictxt_client.h"

namespace Ctxt {

/// A client that only logs what it is told.
class SampleClient final : public ICtxtClient {
 public:
  static std::shared_ptr<SampleClient> GetInstance();
  SampleClient();
  ~SampleClient() override;

  void Initialize(const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) override;
  void VmPowerOnEventHandler(const std::shared_ptr<VmData>& vm) override;
  void VmPowerOffEventHandler(const std::shared_ptr<VmData>& vm) override;
  void TimerEventHandler(const std::shared_ptr<VmData>& vm) override;
  void Shutdown() override;
};

}  // namespace Ctxt
