#pragma once

#include <string>

#include "app/zema/state/health_record.h"

namespace zem::zema {

/// A host without switches.
class NoPublisher : public HealthPublisher {
 public:
  Outcome SetProperty(const std::string&, const std::string&, const void*, size_t, uint32_t) override {
    return Outcome::Done();
  }
  Outcome RemoveProperty(const std::string&, const std::string&) override { return Outcome::Done(); }
  bool SecurityOnly() override { return false; }
};

}  // namespace zem::zema
