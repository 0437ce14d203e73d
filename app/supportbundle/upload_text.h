#pragma once

#include <optional>
#include <string>

namespace zem::Tarvik {

struct BundleRequest;

/// The upload script's input: one JSON object on one line whose strings are not escaped.  Nothing when a
/// value has a control character, which would make it another text.
std::optional<std::string> UploadText(const BundleRequest& request, const std::string& local_path);

}  // namespace zem::Tarvik
