#pragma once

#include <chrono>
#include <cstddef>

namespace zem::Tarvik {

// Any local process may be an alarm client, so what clients can make the agent keep is bounded.

/// Bytes of a source id or qubio id.
inline constexpr size_t kMaxIdBytes = 256;
/// Bytes of the context of an event.
inline constexpr size_t kMaxContextBytes = 64 * 1024;
/// Different source ids that the collector is told of.
inline constexpr size_t kMaxSourceIds = 10'000;
/// Clients that are connected at the same time, and their connections.
inline constexpr size_t kMaxClients = 4096;
/// Requests to one client that wait for an answer, and how long each waits.
inline constexpr size_t kMaxPendingRequests = 1024;
inline constexpr std::chrono::seconds kMaxPendingTime{60};

}  // namespace zem::Tarvik
