#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::controller {

/// One X.509 certificate.  Two certificates are equal when their DER encodings are.
struct Certificate {
  std::string der;

  bool operator==(const Certificate&) const = default;
};

/// Splits a PEM text into its certificates; blanks and the kind of newline do not matter.  Returns nothing
/// when there is no certificate, when one does not parse, or when anything but blanks follows the last.
std::optional<std::vector<Certificate>> SplitCertificates(std::string_view pem);

/// The PEM text of the certificates; empty for an empty list.
std::string PemText(const std::vector<Certificate>& certificates);

}  // namespace zem::controller
