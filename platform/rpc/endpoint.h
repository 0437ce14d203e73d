#pragma once

#include <cstdint>
#include <string>

namespace zem::net {

/// "tcp://ADDRESS:PORT" (literal addresses only) or "zem://ID", an id behind a gateway connection or one that
/// a peer announced.
class Endpoint {
 public:
  enum class Kind { kInvalid, kTcp, kId };

  Endpoint() = default;
  /// A text of neither form gives an invalid endpoint; connecting to it fails.
  explicit Endpoint(std::string text);

  Kind kind() const { return kind_; }
  const std::string& text() const { return text_; }
  /// The literal address of a "tcp://" endpoint.
  const std::string& address() const { return address_; }
  uint16_t port() const { return port_; }
  /// The id of a "zem://" endpoint.
  const std::string& id() const { return address_; }

  bool operator==(const Endpoint& other) const { return text_ == other.text_; }

 private:
  std::string text_;
  Kind kind_ = Kind::kInvalid;
  std::string address_;
  uint16_t port_ = 0;
};

}  // namespace zem::net
