#include "framework/node/host_identity.h"

namespace zem {

void HostIdentity::SetHostId(const std::string& id) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  id_ = id;
}

void HostIdentity::UnsetHostId() { SetHostId(kUninitialized); }

bool HostIdentity::GetHostId(std::string* out) {
  const Synchronizer lock(lock_, __FILE__, __LINE__);
  if (id_ == kUninitialized) return false;
  *out = id_;
  return true;
}

std::optional<std::string> HostIdentity::id() {
  std::string id;
  return GetHostId(&id) ? std::make_optional(std::move(id)) : std::nullopt;
}

void HostIdentity::Forget() {
  UnsetHostId();
  told_to_host_ = false;
}

HostIdentity& Host() {
  static HostIdentity identity;
  return identity;
}

}  // namespace zem
