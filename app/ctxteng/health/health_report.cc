#include "app/ctxteng/health/health_report.h"

#include <array>
#include <boost/lexical_cast.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstdint>
#include <exception>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "app/ctxteng/base/vm_data.h"
#include "framework/log/log.h"
#include "proto/context/ouvi.pb.h"

namespace Ctxt {
namespace {

namespace pt = boost::property_tree;
using orlane::zem::context::HealthMsg;
using orlane::zem::context::HealthStatusMsg;
using orlane::zem::context::VmMsg;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kGoodReport = 0;
constexpr uint32_t kUnreadable = 10;
constexpr uint32_t kNoMessage = 11;
constexpr const char* kUnreadableText = "Error in parsing health xml from zem-context-mux";
constexpr const char* kNoMessageText = "Error in generating health message";

// A real report has 200 bytes an object and five levels.  The parser calls itself once a level.
constexpr size_t kMaxText = size_t{4} * 1024 * 1024;
constexpr int kMaxDepth = 100;

// The kinds of objects as the multiplexer counts them, and as the manager does.
enum class Kind : int { kVm = 0, kSvm = 1, kHost = 2 };
constexpr std::array kManagerKinds = {2u, 3u, 1u};

constexpr int kSvmConnected = 2000;
constexpr int kSvmVersionMismatch = 2001;
constexpr int kSvmConnectionFailed = 2002;
constexpr int kMuxEnabled = 3000;

// Not a partner's service VM but the host's own, which no guest is connected to.
constexpr std::string_view kOwnAltitude = "100";
constexpr size_t kMaskBits = 64;

constexpr std::array<std::string_view, 5> kDistributions = {"ubuntu", "rhel", "suse", "sles", "centos"};

// Measures how deep the elements lie in each other before the parser meets them, which would end up without a
// stack.  Divides the text as the parser does: what looks like a tag in a comment, a section of characters or
// a value counts for nothing, in either direction.
class DepthCheck {
 public:
  explicit DepthCheck(std::string_view xml) : rest_(xml) {}

  /// Throws std::runtime_error; a text that it gives up on is one that the parser refuses.
  void Run() {
    int depth = 0;
    for (SkipPast("<"); !rest_.empty(); SkipPast("<")) {
      if (rest_.starts_with("!--")) {
        SkipPast("-->");
      } else if (rest_.starts_with("![CDATA[")) {
        SkipPast("]]>");
      } else if (rest_.starts_with("?")) {
        SkipPast("?>");
      } else if (rest_.starts_with("!")) {
        throw std::runtime_error("declarations are not read");
      } else if (rest_.starts_with("/")) {
        --depth;
      } else if (OpensElement() && ++depth > kMaxDepth) {
        throw std::length_error("elements lie too deep in each other");
      }
    }
  }

 private:
  static constexpr std::string_view kBlanks = " \t\r\n";

  void Skip(size_t count) { rest_.remove_prefix(std::min(count, rest_.size())); }
  void SkipBlanks() { Skip(rest_.find_first_not_of(kBlanks)); }
  void SkipPast(std::string_view end) {
    const size_t at = rest_.find(end);
    Skip(at == std::string_view::npos ? at : at + end.size());
  }
  // Behind the '<' of a tag, whose attributes it takes.  False for an element that ends with its tag.
  bool OpensElement() {
    Skip(rest_.find_first_of(" \t\r\n/>?"));
    for (SkipBlanks(); !rest_.empty() && rest_[0] != '>' && rest_[0] != '/'; SkipBlanks()) {
      const size_t name = rest_.find_first_of(" \t\r\n/<>=?!");
      if (name == 0) throw std::runtime_error("an attribute has no name");
      Skip(name);
      SkipBlanks();
      if (!rest_.starts_with("=")) throw std::runtime_error("an attribute has no value");
      Skip(1);
      SkipBlanks();
      if (!rest_.starts_with("'") && !rest_.starts_with("\""))
        throw std::runtime_error("a value has no quotes");
      const std::string_view quote = rest_.substr(0, 1);
      Skip(1);
      SkipPast(quote);
    }
    return !rest_.starts_with("/");
  }

  std::string_view rest_;
};

pt::ptree Parse(const std::string& xml) {
  if (xml.size() > kMaxText) throw std::length_error("the text has " + std::to_string(xml.size()) + " bytes");
  DepthCheck(xml).Run();
  std::istringstream in(xml);
  pt::ptree tree;
  pt::read_xml(in, tree, pt::xml_parser::trim_whitespace | pt::xml_parser::no_comments);
  return tree;
}

class ReportReader {
 public:
  ReportReader(const GuestLookup& guest, HealthStatusMsg* report) : guest_(guest), report_(*report) {}

  void Read(const pt::ptree& mux_report) {
    report_.set_timestamp(mux_report.get<uint64_t>("MUXCurrentTime"));
    ZLOG_DEBUG("CtxtHealth: Set health status timestamp: %lu", report_.timestamp());
    mux_id_ = mux_report.get<std::string>("MUXMOID");
    for (const auto& [name, event] : mux_report) {
      if (name != "ObjectEvent") continue;
      HealthMsg health;
      if (ReadObject(event, &health)) *report_.add_health() = std::move(health);
    }
  }

 private:
  struct Parameter {
    std::string key;
    std::string value;
  };

  bool ReadObject(const pt::ptree& event, HealthMsg* health) {
    const int kind = event.get<int>("objectType");
    const int type = event.get<int>("eventType");
    const auto time = event.get<uint64_t>("eventTime");
    std::vector<Parameter> parameters;
    for (const auto& [name, value] : event) {
      if (name == "eventParameter") parameters.push_back({name, value.data()});
    }
    if (kind < 0 || static_cast<size_t>(kind) >= kManagerKinds.size()) return false;
    health->set_object_type(kManagerKinds[static_cast<size_t>(kind)]);
    health->set_event_type(static_cast<uint32_t>(type));
    switch (static_cast<Kind>(kind)) {
      case Kind::kVm:
        return ReadVm(event, time, parameters, health->mutable_vm_object());
      case Kind::kSvm:
        return ReadSvm(event, type, time, parameters, health->mutable_svm_object());
      case Kind::kHost:
        break;
    }
    return ReadHost(type, time, parameters, health->mutable_host_object());
  }

  bool ReadVm(const pt::ptree& event, uint64_t time, const std::vector<Parameter>& parameters, VmMsg* vm) {
    ZLOG_DEBUG("CtxtHealth: Add VM Entry to protobuf");
    const std::string id = event.get<std::string>("vcUUID");
    vm->set_external_id(id);
    ZLOG_DEBUG("CtxtHealth: set external id %s", id.c_str());
    vm->set_vm_connect_time(time);
    ZLOG_DEBUG("CtxtHealth: set eventTime %lu", time);
    uint64_t mask = 0;
    for (const auto& [key, altitude] : parameters) {
      ZLOG_DEBUG("       key: %s, value: %s", key.c_str(), altitude.c_str());
      const auto index = svm_index_.find(altitude);
      mask |= uint64_t{1} << (index == svm_index_.end() ? 0 : index->second % kMaskBits);
    }
    vm->set_connected_svm_mask(mask);
    ZLOG_DEBUG("CtxtHealth: set connectedSvmMask %u", static_cast<unsigned>(mask));
    const std::shared_ptr<const VmData> data = guest_(id);
    if (data == nullptr) {
      ZLOG_CTX_ERROR(302, "CtxtHealth: Failed to find vmData for VM external id: %s", id.c_str());
      return true;
    }
    vm->set_gcf_path(data->gcf_path);
    AddOs(*data, vm);
    return true;
  }

  static void AddOs(const VmData& data, VmMsg* vm) {
    static const GiInfo kUnknown;
    const GiInfo& gi = data.gi_info_fetched ? data.gi : kUnknown;
    if (data.os.os_type == kWindows) {
      auto& info = *vm->mutable_win_info()->mutable_gi_info();
      info.set_file_driver_version(gi.driver_version);
      info.set_nw_driver_version(gi.network_driver_version);
      info.set_tools_version(gi.tools_version);
      info.set_umc_version(gi.umc_version);
    } else if (data.os.os_type == kLinux) {
      vm->mutable_lin_info()->set_dist_id(Distribution(data.os));
      auto& info = *vm->mutable_lin_info()->mutable_gi_info();
      info.set_status(gi.status);
      info.set_service_version(gi.service_version);
      info.set_nw_driver_version(gi.network_driver_version);
    }
  }

  static std::string Distribution(const OsInfo& os) {
    for (const std::string_view name : kDistributions) {
      if (os.distribution_id.find(name) != std::string::npos ||
          os.distribution_description.find(name) != std::string::npos) {
        return std::string(name);
      }
    }
    return os.distribution_id;
  }

  bool ReadSvm(const pt::ptree& event, int type, uint64_t time, const std::vector<Parameter>& parameters,
               orlane::zem::context::PartnerSvmMsg* svm) {
    ZLOG_DEBUG("CtxtHealth: Add Partner SVM Entry to protobuf");
    const std::string altitude = event.get<std::string>("altitude");
    svm->set_altitude(altitude);
    ZLOG_DEBUG("CtxtHealth: set altitude %s", altitude.c_str());
    if (altitude != kOwnAltitude) {
      const size_t index = svm_index_.try_emplace(altitude, svm_index_.size()).first->second;
      svm->set_svm_index(static_cast<uint32_t>(index));
      ZLOG_DEBUG("CtxtHealth: set SVM index %u", svm->svm_index());
    }
    svm->set_svm_connect_time(time);
    switch (type) {
      case kSvmConnected:
        if (!HasParameters("SVM_CONNECTED", parameters.size(), 1)) return false;
        break;
      case kSvmVersionMismatch:
        if (!HasParameters("SVM_VERSION_MISMATCH", parameters.size(), 2)) return false;
        svm->set_mux_incompatible_version(parameters[1].value);
        ZLOG_DEBUG("CtxtHealth: set mux incomaptible version %s", svm->mux_incompatible_version().c_str());
        break;
      case kSvmConnectionFailed:
        return HasParameters("SVM_CONNECTION_FAILED", parameters.size(), 0);
      default:
        ZLOG_CTX_ERROR(304, "CtxtHealth: Unexpected event type: %d for object SVM", type);
        return false;
    }
    svm->set_svm_version(parameters[0].value);
    ZLOG_DEBUG("CtxtHealth: set svm version %s", svm->svm_version().c_str());
    return true;
  }

  bool ReadHost(int type, uint64_t time, const std::vector<Parameter>& parameters,
                orlane::zem::context::HostMsg* host) const {
    if (type != kMuxEnabled) {
      ZLOG_CTX_ERROR(304, "CtxtHealth: Unexpected event type %d for object HOST, expected MUX_ENABLED", type);
      return false;
    }
    ZLOG_DEBUG("CtxtHealth: Add Host Entry to protobuf");
    host->set_host_id(mux_id_);
    host->set_mux_start_time(time);
    if (!HasParameters("MUX_ENABLED", parameters.size(), 2)) return false;
    host->set_mux_version(parameters[0].value);
    host->set_vfile_protocol_version(parameters[1].value);
    return true;
  }

  static bool HasParameters(const char* event, size_t count, size_t wanted) {
    if (count == wanted) return true;
    ZLOG_CTX_ERROR(303, "CtxtHealth: Incorrect no. of params %zu for event %s", count, event);
    return false;
  }

  const GuestLookup& guest_;
  HealthStatusMsg& report_;
  std::string mux_id_;
  std::map<std::string, size_t> svm_index_;  // by altitude
};

HealthStatusMsg Failure(uint32_t code, const char* text) {
  HealthStatusMsg message;
  message.set_status_code(code);
  message.set_error_msg(text);
  return message;
}

}  // namespace

HealthStatusMsg BuildHealthReport(const std::string& xml, const GuestLookup& guest) {
  try {
    pt::ptree tree;
    try {
      tree = Parse(xml);
    } catch (const std::exception& error) {
      ZLOG_CTX_ERROR(305, "CtxtHealth: Exception occured while parsing health xml, error: %s", error.what());
      return Failure(kUnreadable, kUnreadableText);
    }
    HealthStatusMsg report;
    ReportReader(guest, &report).Read(tree.get_child("PalisadeEndpointSecurity.MUXReport"));
    report.set_status_code(kGoodReport);
    return report;
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(306, "CtxtHealth: Exception occured while converting health xml to protobuf: %s",
                   error.what());
    return Failure(kUnreadable, kUnreadableText);
  } catch (...) {
    ZLOG_CTX_ERROR(306, "CtxtHealth: Unhandled exception occured while generating health xml");
    return Failure(kNoMessage, kNoMessageText);
  }
}

}  // namespace Ctxt
