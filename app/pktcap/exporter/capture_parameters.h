#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/pktcap/tools/port_lookup.h"

namespace zem::Tarvik {

/// What the check of a parameter may say, in the numbers that a session's status has.
inline constexpr int kParameterGood = 0;
inline constexpr int kParameterUnknown = 1;

/// The parameters of one capture, by name, with what the host's tools make of them.
///
/// Threads: one at a time.
class CaptureParameters {
 public:
  /// Where the parameters are checked and used.
  struct Host {
    CaptureTools tools;
    /// One bit of the kind of node; parameters of other kinds do not exist.
    uint32_t node_kind = 1;
    /// A host of version 6.5 knows less.
    bool is_version_65 = false;

    /// This host.
    static Host Own();
  };

  explicit CaptureParameters(const Host& host) : host_(host) {}

  /// Checks a value and keeps it; a later one of the same name replaces it.  Returns kParameterGood, or the
  /// error.  Blocks for a value that the host has to look up; `*stop` ends that.
  [[nodiscard]] int Set(const std::string& name, const std::string& value, const std::atomic<bool>* stop);

  /// The direction bit of the packets: set unless only outgoing ones are wanted.
  bool incoming() const { return incoming_; }
  /// 0 when no virtual network is named.
  uint32_t vni() const { return vni_; }

  /// The arguments of the capturing tool, without its output.  Looks ports up once more: they may have moved.
  /// Blocks like `Set`.
  std::vector<std::string> CaptureArguments(const std::atomic<bool>* stop) const;
  /// The filter's expression.
  std::vector<std::string> FilterArguments() const;

  /// Whether a node of this kind has a parameter of the name.
  static bool Exists(const std::string& name, uint32_t node_kind);

 private:
  const Host host_;
  std::unordered_map<std::string, std::string> values_;
  bool incoming_ = true;
  uint32_t vni_ = 0;
};

}  // namespace zem::Tarvik
