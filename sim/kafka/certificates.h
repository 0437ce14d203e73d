#pragma once

#include <string>

namespace zem::sim {

/// A certificate and its private key, PEM.
struct KeyPair {
  std::string certificate;
  std::string key;
};

/// An authority that signs certificates of brokers and of hosts; each object is one of its own.
///
/// Errors: std::runtime_error when OpenSSL refuses something.
class CertificateAuthority {
 public:
  explicit CertificateAuthority(const std::string& name);

  /// The authority's own certificate, PEM.
  const std::string& certificate() const { return own_.certificate; }

  /// `address` is the IPv4 address, or the host name, that the certificate is for.  `days` may be negative:
  /// the certificate has then expired so many days ago.
  KeyPair Sign(const std::string& name, const std::string& address, int days) const;

 private:
  KeyPair own_;
};

}  // namespace zem::sim
