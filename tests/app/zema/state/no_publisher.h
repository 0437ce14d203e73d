#pragma once

#include <string>

#include "app/zema/state/health_record.h"

namespace zem::zema {

/// A host without switches.
class NoPublisher : public HealthPublisher {
 public:
  bool SetProperty(const std::string&, const std::string&, const void*, size_t, uint32_t,
                   std::string*) override {
    return true;
  }
  bool RemoveProperty(const std::string&, const std::string&, std::string*) override { return true; }
  bool SecurityOnly() override { return false; }
};

}  // namespace zem::zema
