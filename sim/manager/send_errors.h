#pragma once

namespace zem::sim {

/// What `Manager::Send` says when nobody is there to send a request that names no APH.
inline constexpr const char* kNoMaster = "there is no master";

}  // namespace zem::sim
