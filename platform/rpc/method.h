#pragma once

#include <cstdint>

namespace zem::rpc {

enum class MethodKind { kUnary, kServerStream, kClientStream, kBidirectional };

/// One service as both sides compiled it.  The fingerprint is made of the names and types of its methods; a
/// channel opens only between equal ones, so files of different versions fail at stub creation, not in a
/// call.
struct ServiceInfo {
  const char* name;
  uint16_t methods;
  uint64_t fingerprint;
};

template <class RequestType, class ResponseType, MethodKind kMethodKind>
struct Method {
  using Request = RequestType;
  using Response = ResponseType;
  static constexpr MethodKind kKind = kMethodKind;

  const ServiceInfo& service;
  uint16_t index;
  const char* name;
};

}  // namespace zem::rpc
