#pragma once

#include "framework/log/logger.h"

namespace zem::test {

/// Throws the log away for as long as the process lives: a fuzz target's inputs would fill it.
inline void SilenceLog() {
  static const bool silent = [] {
    Logger::SetEmitter([](int, const char*) {});
    return true;
  }();
  static_cast<void>(silent);
}

}  // namespace zem::test
