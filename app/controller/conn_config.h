#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "app/controller/certificate_list.h"

namespace orlane::zem::config {
class ControllerInfoMsg;
}

namespace zem::controller {

/// One controller.  An empty text and a port of 0 are absent.
struct ConnConfig {
  std::string uuid;
  std::string ipv4;
  std::string ipv6;
  uint32_t port = 0;
  uint32_t port_v6 = 0;
  std::string fqdn;
  std::string fqdn_v6;
  std::string version;
  std::vector<Certificate> certificates;
  bool ssl_enabled = false;
  /// The last message has it.
  bool seen = false;
  /// The connection id, -1 without; no part of what makes two controllers equal.
  int id = -1;

  /// The version and what the agent notes beside do not count.
  bool operator==(const ConnConfig& other) const;

  /// Whether both speak of the same controller: by uuid where this has one, else by the two addresses.
  bool SameController(const ConnConfig& other) const;

  std::string ToString() const;

  /// Adds the members that have a value, and the id as attribute.
  void WriteTo(boost::property_tree::ptree* element) const;

  /// Takes what the element has; members that make no sense count as absent.  False when the certificates do
  /// not parse: there are none then.
  bool ReadFrom(const boost::property_tree::ptree& element);
};

/// "2.3.1.4.text.5678" with what is absent left out.
std::string VersionText(const orlane::zem::config::ControllerInfoMsg& controller);

}  // namespace zem::controller
