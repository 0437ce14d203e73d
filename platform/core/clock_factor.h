#pragma once

namespace zem {

/// The variable of the environment that makes a process's clock run faster than the machine's: a number from
/// 1 to 100.
inline constexpr const char* kClockFactorVariable = "ZEM_CLOCK_FACTOR";

}  // namespace zem
