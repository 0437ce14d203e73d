#pragma once

#include <string>

namespace zem::Tarvik {

/// How one part of the daemon is, for the operator who asks.
struct PartState {
  /// "store", "vertical SwitchingVertical": the same text in every reading, since the time of a fault is kept
  /// by it.
  std::string part;
  /// What is wrong; empty while the part does its work.
  std::string fault;
  /// What ends the fault, and whose turn it is.
  std::string heals;
};

}  // namespace zem::Tarvik
