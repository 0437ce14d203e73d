#pragma once

#include "app/ctxteng/flow/pace.h"
#include "app/ctxteng/kafka/kafka_profiles.h"

namespace Ctxt::PaceClient {

/// The profiles of the flow context client: to the common ones comes the one that switches it on and off.
class Pace::Profiles final : public KafkaProfiles {
 public:
  Profiles(Pace& pace, KafkaOwner& kafka, SiteId& site);

 private:
  bool TakeOther(uint32_t type, const std::string& payload) override;
  void ForgetOther(uint32_t type) override;
  void ForgetAll() override { pace_.Reset(); }
  void TakeHostConfig(const std::string& payload);

  Pace& pace_;
};

}  // namespace Ctxt::PaceClient
