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

/// One controller.  An empty text or a port of 0 is an absent member.
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
  /// Whether the last message contains the controller.
  bool seen = false;
  /// The connection id, -1 when there is none.  Not compared.
  int id = -1;

  /// Compares all members except `version`, `seen` and `id`.
  bool operator==(const ConnConfig& other) const;

  /// Whether both describe the same controller: compares the uuid if this one has it, otherwise both
  /// addresses.
  bool SameController(const ConnConfig& other) const;

  std::string ToString() const;

  /// Adds the members that have a value, and the id as attribute.
  void WriteTo(boost::property_tree::ptree* element) const;

  /// Reads the members that the element has; invalid members count as absent.  Returns false, without
  /// certificates, when these do not parse.
  bool ReadFrom(const boost::property_tree::ptree& element);
};

/// The version as "2.3.1.4.text.5678"; absent parts are left out.
std::string VersionText(const orlane::zem::config::ControllerInfoMsg& controller);

}  // namespace zem::controller
