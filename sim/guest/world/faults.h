#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/guest/wire/messages.h"

namespace zem::sim::guest {

/// How an answer is spoilt.  Each has a name, by which commands set it.
enum class Garbage : uint32_t {
  kNone,
  kShort,  // half of the buffer
  kNullPointer,
  kWildPointer,
  kHugeLength,
  kZero,  // the call that asks for the size succeeds
  kGrow,  // the call with the buffer wants a larger one
  kAddressType,
  kCount,
  kNoTerminator,
};

/// A rule that spoils answers.
struct Fault {
  Operation operation = Operation::kVmId;
  /// Empty: of every guest.
  std::string guest;
  /// 0 both calls, 1 the one that asks for the size, 2 the one with the buffer.
  uint32_t call = 0;
  /// How many answers to leave alone first, and how many to spoil then; 0 is all.
  uint32_t skip = 0;
  uint32_t times = 0;
  uint32_t status = 0;
  uint32_t delay_ms = 0;
  Garbage garbage = Garbage::kNone;

  uint32_t seen = 0;
};

/// The rules in force.  Not for several threads at once.
class Faults {
 public:
  void Add(Fault fault) { faults_.push_back(std::move(fault)); }
  void Clear() { faults_.clear(); }
  /// Applies the first rule that fits.
  void Spoil(const Question& question, const std::string& guest, Answer* answer);

 private:
  std::vector<Fault> faults_;
};

}  // namespace zem::sim::guest
