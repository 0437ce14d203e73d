#pragma once

namespace orlane::zem::support_bundle {
class BundleGenerationRequestMsg;
}

namespace zem::Tarvik {

struct BundleRequest;

/// Reads what a message asks for; the roads back are left empty.
BundleRequest ReadBundleRequest(const orlane::zem::support_bundle::BundleGenerationRequestMsg& message);

}  // namespace zem::Tarvik
