#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::controller {

/// One X.509 certificate.  Two are equal when their encodings are, whatever their texts looked like.
struct Certificate {
  std::string der;

  bool operator==(const Certificate&) const = default;
};

/// The certificates of a PEM text, one after another; blanks and the kind of newline do not matter.  Nothing
/// when there is none, when one does not parse, or when anything but blanks follows the last.
std::optional<std::vector<Certificate>> SplitCertificates(std::string_view pem);

/// Their PEM text; empty for none.
std::string PemText(const std::vector<Certificate>& certificates);

}  // namespace zem::controller
