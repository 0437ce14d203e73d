#pragma once

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// What the way in which the host was installed means for its switches.
struct StatelessHost {
  /// Interfaces of switches of kind "NVS" are moved by the agent.
  bool migrate_nvs_knls = false;
  /// The host's profile makes the switches when the host starts.
  bool process_network_plugin = false;
};

/// Whether the host is of version 7.0 or higher, and has a switch that nobody uses (`unused_ckln` may be
/// null). False with the text in `errors`.
[[nodiscard]] bool CheckQUBiVersion70AndUnusedCkln(LumCommands& lum, ErrorSink& errors,
                                                   bool* unused_ckln = nullptr);

/// Reads the flags that the host's network plugin has left.  False with the text in `errors` when the host's
/// profile and the manager's do not fit, or a flag could not be read.
///
/// Threads: one, which is not a provider's.
[[nodiscard]] bool CheckStatelessQubRebootFlags(LumCommands& lum, bool is_mp_host_profile_enabled,
                                                StatelessHost* out, ErrorSink& errors);

}  // namespace zem::zema
