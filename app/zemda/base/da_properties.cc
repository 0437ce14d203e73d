#include "app/zemda/base/da_properties.h"

#include <boost/property_tree/xml_parser.hpp>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "framework/log/log.h"
#include "framework/options/discovery_option_table.h"
#include "framework/options/option_value.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr const char* kSubtree = "config.zemda";
constexpr zem::Tarvik::DiscoveryOptionKey kAckTimeout = "CommunicationHandler.ackTimeout";

struct Current {
  std::mutex mutex;  // guards properties
  std::shared_ptr<const DaProperties> properties;
};

Current& TheCurrent() {
  static auto& current = *new Current();  // threads ask until the process ends
  return current;
}

}  // namespace

struct DaProperties::Trees {
  boost::property_tree::ptree all;
  boost::property_tree::ptree zemda;
};

DaProperties::DaProperties(std::string path) : path_(std::move(path)), trees_(std::make_unique<Trees>()) {}

DaProperties::~DaProperties() = default;

bool DaProperties::Load(const std::string& path) {
  const std::shared_ptr<DaProperties> loaded(new DaProperties(path));
  bool good = true;
  try {
    namespace xml = boost::property_tree::xml_parser;
    read_xml(path, loaded->trees_->all, xml::no_comments | xml::trim_whitespace);
    loaded->trees_->zemda = loaded->trees_->all.get_child(kSubtree);
  } catch (const std::exception& error) {
    ZLOG_ERROR("MPA20007", "Error occurred while loading properties file %s", path.c_str());
    ZLOG_DEBUG("%s", error.what());
    good = false;
  }
  Current& current = TheCurrent();
  const std::lock_guard lock(current.mutex);
  current.properties = loaded;
  return good;
}

std::shared_ptr<const DaProperties> DaProperties::Get() {
  Current& current = TheCurrent();
  const std::lock_guard lock(current.mutex);
  if (current.properties == nullptr) current.properties.reset(new DaProperties(""));
  return current.properties;
}

uint32_t DaProperties::AckTimeout() const {
  const zem::Tarvik::OptionRow& row = kAckTimeout.row();
  const std::string key(row.key);
  std::optional<std::string> given;
  if (const auto text = trees_->zemda.get_optional<std::string>(key)) given = *text;
  const auto seconds = static_cast<uint32_t>(zem::Tarvik::NumberValue(row, given));
  if (!given || !zem::Tarvik::IsNumber(*given)) {
    ZLOG_ERROR("MPA20008", "Error occurred while loading property %s, setting it to default value %d",
               key.c_str(), static_cast<int>(seconds));
  }
  return seconds;
}

}  // namespace ZemDa
