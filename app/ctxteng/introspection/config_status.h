#pragma once

#include <cstdint>

namespace Ctxt {

class ConfigHealth;

/// How a step of the configuration of the multiplexer ended.
enum class ConfigStatus : uint32_t {
  kVmDone = 100,
  kVmNotSerialized = 101,
  kVmRefused = 102,
  kVmFailed = 103,
  kSolutionDone = 200,
  kSolutionNotSerialized = 201,
  kSolutionNotMonitored = 202,
  kSolutionFailed = 203,
  kSolutionRefused = 204,
  kAmDone = 300,
  kAmNotSerialized = 301,
  kAmNotMonitored = 302,
  kAmFailed = 303,
  kAmRefused = 304,
};

const char* ConfigStatusText(ConfigStatus status);

/// Reports `status` with its text.
void SendStatus(ConfigHealth& health, ConfigStatus status);

}  // namespace Ctxt
