#include "app/controller/conn_config.h"

#include <boost/property_tree/ptree.hpp>
#include <optional>

#include "proto/config/config.pb.h"

namespace zem::controller {
namespace {

constexpr const char* kId = "<xmlattr>.id";

struct TextMember {
  const char* name;
  std::string ConnConfig::*field;
};
constexpr TextMember kTexts[] = {
    {"server", &ConnConfig::ipv4},    {"fqdn", &ConnConfig::fqdn}, {"serverV6", &ConnConfig::ipv6},
    {"fqdnV6", &ConnConfig::fqdn_v6}, {"uuid", &ConnConfig::uuid}, {"version", &ConnConfig::version},
};

struct PortMember {
  const char* name;
  uint32_t ConnConfig::*field;
};
constexpr PortMember kPorts[] = {{"port", &ConnConfig::port}, {"portV6", &ConnConfig::port_v6}};

constexpr const char* kSslEnabled = "sslEnabled";
constexpr const char* kPemKey = "pemKey";

// The file may be edited by hand, with line breaks inside a value.
std::string Trimmed(const std::string& text) {
  constexpr const char* kBlanks = " \t\r\n";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

bool ConnConfig::operator==(const ConnConfig& other) const {
  return ipv4 == other.ipv4 && ipv6 == other.ipv6 && port == other.port && port_v6 == other.port_v6 &&
         uuid == other.uuid && fqdn == other.fqdn && fqdn_v6 == other.fqdn_v6 &&
         ssl_enabled == other.ssl_enabled && certificates == other.certificates;
}

bool ConnConfig::SameController(const ConnConfig& other) const {
  return uuid.empty() ? ipv4 == other.ipv4 && ipv6 == other.ipv6 : uuid == other.uuid;
}

std::string ConnConfig::ToString() const {
  std::string text = "id " + std::to_string(id);
  for (const TextMember& member : kTexts) {
    if (!(this->*member.field).empty()) text += std::string(", ") + member.name + " " + this->*member.field;
  }
  for (const PortMember& member : kPorts) {
    if (this->*member.field != 0) {
      text += std::string(", ") + member.name + " " + std::to_string(this->*member.field);
    }
  }
  return text + ", " + kSslEnabled + (ssl_enabled ? " true, " : " false, ") +
         std::to_string(certificates.size()) + " certificates";
}

void ConnConfig::WriteTo(boost::property_tree::ptree* element) const {
  if (id >= 0) element->put(kId, id);
  for (const TextMember& member : kTexts) {
    if (!(this->*member.field).empty()) element->put(member.name, this->*member.field);
  }
  for (const PortMember& member : kPorts) {
    if (this->*member.field != 0) element->put(member.name, this->*member.field);
  }
  element->put(kSslEnabled, ssl_enabled ? "true" : "false");
  if (const std::string pem = PemText(certificates); !pem.empty()) element->put(kPemKey, pem);
}

bool ConnConfig::ReadFrom(const boost::property_tree::ptree& element) {
  id = element.get<int>(kId, -1);
  for (const TextMember& member : kTexts) {
    this->*member.field = Trimmed(element.get<std::string>(member.name, ""));
  }
  for (const PortMember& member : kPorts) this->*member.field = element.get<uint32_t>(member.name, 0);
  const std::string ssl = Trimmed(element.get<std::string>(kSslEnabled, ""));
  ssl_enabled = ssl == "true" || ssl == "1";
  certificates.clear();
  const auto pem = element.get_optional<std::string>(kPemKey);
  if (!pem) return true;
  auto parsed = SplitCertificates(*pem);
  if (parsed) certificates = std::move(*parsed);
  return parsed.has_value();
}

std::string VersionText(const orlane::zem::config::ControllerInfoMsg& controller) {
  const orlane::zem::ProductVersionMsg& version = controller.version();
  std::string text;
  const auto add = [&text](bool present, const std::string& part) {
    if (present) text += (text.empty() ? "" : ".") + part;
  };
  add(version.has_major(), std::to_string(version.major()));
  add(version.has_minor(), std::to_string(version.minor()));
  add(version.has_micro(), std::to_string(version.micro()));
  add(version.has_patch(), std::to_string(version.patch()));
  add(version.has_text(), version.text());
  add(version.has_build(), std::to_string(version.build()));
  return text;
}

}  // namespace zem::controller
