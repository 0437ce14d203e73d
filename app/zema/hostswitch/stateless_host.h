#pragma once

namespace zem::zema {

class ErrorSink;
class LumCommands;

/// How the installation of the host affects its switches.
struct StatelessHost {
  /// The agent moves the interfaces of switches of kind "NVS".
  bool migrate_nvs_knls = false;
  /// The host's profile creates the switches when the host starts.
  bool process_network_plugin = false;
};

/// Finds out whether the host is of version 7.0 or higher, and whether it has an unused switch (`unused_ckln`
/// may be null).  Returns false with the text in `errors` when it fails.
[[nodiscard]] bool CheckQUBiVersion70AndUnusedCkln(LumCommands& lum, ErrorSink& errors,
                                                   bool* unused_ckln = nullptr);

/// Reads the flags that the host's network plugin has left.  Returns false with the text in `errors` when the
/// host's profile and the manager's do not match, or when a flag cannot be read.
///
/// Threads: one, which is not a provider's.
[[nodiscard]] bool CheckStatelessQubRebootFlags(LumCommands& lum, bool is_mp_host_profile_enabled,
                                                StatelessHost* out, ErrorSink& errors);

}  // namespace zem::zema
