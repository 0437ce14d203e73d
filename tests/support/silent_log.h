#pragma once

#include "framework/log/logger.h"

namespace zem::test {

/// Discards the log for as long as the process lives, because a fuzz target's inputs would fill it.
inline void SilenceLog() {
  static const bool silent = [] {
    Logger::SetEmitter([](int, const char*) {});
    return true;
  }();
  static_cast<void>(silent);
}

}  // namespace zem::test
