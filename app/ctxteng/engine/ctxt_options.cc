#include "app/ctxteng/engine/ctxt_options.h"

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstdio>
#include <optional>

#include "framework/log/log.h"
#include "framework/options/context_option_table.h"
#include "framework/options/option_value.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

using Key = zem::Tarvik::ContextOptionKey;

void LogUsage() {
  ZLOG_CTX_ERROR(1,
                 "CtxtEng: Usage: Put configuration in zem-ctxteng.xml. At least one client and listen port "
                 "needs to be specified.");
}

// A number of the identity firewall; none of them makes sense as 0.
struct IdfwNumber {
  Key key;
  uint32_t CtxtClientParam::*member;
};
constexpr std::array kIdfwNumbers = {
    IdfwNumber{"IdfwConfig.CacheLimit", &CtxtClientParam::cacheLimit},
    IdfwNumber{"IdfwConfig.TimerInterval", &CtxtClientParam::timerInterval},
    IdfwNumber{"IdfwConfig.AckTimeout", &CtxtClientParam::ackTimeout},
    IdfwNumber{"IdfwConfig.CacheThreshold", &CtxtClientParam::cacheThreshold},
    IdfwNumber{"IdfwConfig.MaxBackoffCounter", &CtxtClientParam::maxBackoffCounter},
};

// An option of intrusion detection: one that may be absent keeps its default without a word; a value that it
// does not take gives the default and the warning.
struct IdsNumber {
  Key key;
  uint32_t IdsParam::*member;
  const char* warning;
};
struct IdsText {
  Key key;
  std::string IdsParam::*member;
  const char* warning;
};
constexpr std::array kIdsNumbers = {
    IdsNumber{"IdsConfig.criticalQSize", &IdsParam::criticalQSize,
              "Critical queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalQSize", &IdsParam::nonCriticalQSize,
              "Non critical queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.kafkaQSize", &IdsParam::kafkaQSize,
              "Kafka queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.extLogQSize", &IdsParam::extLogQSize,
              "External logging  queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalPcapQSize", &IdsParam::criticalPcapQSize,
              "Critical pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalPcapQSize", &IdsParam::nonCriticalPcapQSize,
              "Non critical pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.pcapKafkaQSize", &IdsParam::pcapKafkaQSize,
              "Kafka pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalSendFreqS", &IdsParam::criticalSendFreqS,
              "Critical queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalSendFreqS", &IdsParam::nonCriticalSendFreqS,
              "Non critical queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalSendPcapFreqS", &IdsParam::criticalSendPcapFreqS,
              "pcap critical sending frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalSendPcapFreqS", &IdsParam::nonCriticalSendPcapFreqS,
              "pcap sending frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.maxPcapsPerProto", &IdsParam::maxPcapsPerProto,
              "pcap per proto must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.sendKafkaFreqS", &IdsParam::sendKafkaFreqS,
              "Kafka queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.sendPcapKafkaFreqS", &IdsParam::sendPcapKafkaFreqS,
              "Pcap kafka queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.extLogSendFreqS", &IdsParam::extLogSendFreqS,
              "External log queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.pcapCleanFreq", &IdsParam::pcapCleanFreq,
              "Pcap stale file cleanup frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.idsCriticalSeverity", &IdsParam::idsCriticalSeverity,
              "Ids critical severity must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.idsSocketRecvLen", &IdsParam::idsSocketRecvLen,
              "Ids engine socket receive len must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitThresholdCrit", &IdsParam::rateLimitThresholdCrit,
              "Threshold for rate limiting critical events must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitThresholdNonCrit", &IdsParam::rateLimitThresholdNonCrit,
              "Threshold for rate limiting non-critical events must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitExpirationSecs", &IdsParam::rateLimitExpirationSecs,
              "Expiration time of rate limiting slots must be greater than 0, using default of %d"},
};
constexpr std::array kIdsTexts = {
    IdsText{"IdsConfig.pcapDirPath", &IdsParam::pcapDirPath,
            "IDS engine pcap directory must be provided, using default path %s"},
    IdsText{"IdsConfig.idsSocketName", &IdsParam::idsSocketName,
            "IDS engine socket name must be provided, using default path %s"},
    IdsText{"IdsConfig.extLogSocketName", &IdsParam::extLogSocketName,
            "IDS engine external socket name must be provided, using default path %s"},
};

class Reader {
 public:
  Reader(const boost::property_tree::ptree& tree, CtxtCore::Settings& settings)
      : tree_(tree), settings_(settings) {}

  bool Read() {
    if (!TakeStart("metrics.numWorkerThreads", &settings_.worker_threads) ||
        !TakeStart("metrics.maxEventsPerVm", &settings_.max_events_per_vm)) {
      LogUsage();
      return false;
    }
    ReadCore();
    if (Enabled("clients.sampleClient")) settings_.client_ids |= kSampleBit;
    ReadIdfw();
    if (!ReadIds()) return false;
    ReadPace();
    return ReadPort();
  }

 private:
  std::optional<std::string> Given(const Key& key) const {
    const auto text = tree_.get_optional<std::string>(std::string(key.row().key));
    return text ? std::optional(*text) : std::nullopt;
  }
  bool Enabled(const Key& key) const { return zem::Tarvik::FlagValue(key.row(), Given(key)); }

  void Take(const Key& key, bool* value) const { *value = Enabled(key); }
  void Take(const Key& key, std::string* value) const {
    *value = zem::Tarvik::TextValue(key.row(), Given(key));
  }
  void Take(const Key& key, uint32_t* value) const {
    *value = static_cast<uint32_t>(zem::Tarvik::NumberValue(key.row(), Given(key)));
  }
  // A start parameter, without which the engine does not start.
  bool TakeStart(const Key& key, std::string* value) const {
    Take(key, value);
    return zem::Tarvik::ValueFault(key.row(), *value).empty();
  }
  // Something is given, and it is no value of the option.
  bool IsWrong(const Key& key) const {
    const std::optional<std::string> text = Given(key);
    return text && !zem::Tarvik::ValueFault(key.row(), *text).empty();
  }

  void ReadCore() {
    CtxtClientParam& param = settings_.param;
    Take("CoreConfig.UserMetadataCacheSize", &param.userMetadataCacheSize);
    Take("CoreConfig.EnableProcessHash", &param.enableProcessHash);
    Take("CoreConfig.UseOldProcessHashMethod", &param.useOldProcessHashMethod);
    Take("CoreConfig.DpuId", &param.dpuId);
    ZLOG_INFO("CtxtEng: EnableProcessHash: %s", param.enableProcessHash ? "true" : "false");
    ZLOG_INFO("CtxtEng: useOldProcessHashMethod: %s", param.useOldProcessHashMethod ? "true" : "false");
  }

  void ReadIdfw() {
    if (!Enabled("clients.IdfwClient")) {
      ZLOG_INFO("CtxtEng: IDFW client is disabled");
      return;
    }
    settings_.client_ids |= kIdfwBit;
    ZLOG_INFO("CtxtEng: IDFW client is enabled");
    CtxtClientParam& param = settings_.param;
    for (const IdfwNumber& row : kIdfwNumbers) {
      Take(row.key, &(param.*row.member));
      if (!IsWrong(row.key)) continue;
      ZLOG_WARN("CtxtEng: %s must be greater than 0, using default of %u",
                std::string(row.key.row().key).c_str(), param.*row.member);
    }
    constexpr Key kSids = "IdfwConfig.WellKnownSids";
    if (const auto sids = tree_.get_child_optional(std::string(kSids.row().key))) {
      for (const auto& [name, sid] : *sids) param.wellKnownSids.push_back(sid.data());
    }
  }

  bool ReadIds() {
    if (!Enabled("clients.IdsClient")) {
      ZLOG_INFO("CtxtEng: IDS client is disabled");
      return true;
    }
    settings_.client_ids |= kIdsBit;
    IdsParam& ids = settings_.param.ids;
    for (const IdsNumber& row : kIdsNumbers) {
      if (!IsPresent(row.key)) return false;
      Take(row.key, &(ids.*row.member));
      if (IsWrong(row.key)) ZLOG_WARN(row.warning, static_cast<int>(ids.*row.member));
    }
    for (const IdsText& row : kIdsTexts) {
      if (!IsPresent(row.key)) return false;
      Take(row.key, &(ids.*row.member));
      if (IsWrong(row.key)) ZLOG_WARN(row.warning, (ids.*row.member).c_str());
    }
    ZLOG_INFO("CtxtEng: IDS client is enabled");
    return true;
  }

  bool IsPresent(const Key& key) const {
    if (!key.row().needed || Given(key)) return true;
    ZLOG_WARN("CtxtEng: The option %s is missing", std::string(key.row().key).c_str());
    return false;
  }

  void ReadPace() {
    if (!Enabled("clients.ZemiClient")) {
      ZLOG_INFO("CtxtEng: ZEMI client is disabled\n");
      return;
    }
    settings_.client_ids |= kZemiBit;
    CtxtClientParam& param = settings_.param;
    Take("PaceConfig.NetworkEventQueueSize", &param.networkEventQueueSize);
    Take("PaceConfig.VmEventQueueSize", &param.vmEventQueueSize);
    Take("PaceConfig.UserEventQueueSize", &param.userEventQueueSize);
    ZLOG_INFO("CtxtEng: ZEMI client enabled, conn queue size: %d, vm queue size: %d, user queue size: %d",
              static_cast<int>(param.networkEventQueueSize), static_cast<int>(param.vmEventQueueSize),
              static_cast<int>(param.userEventQueueSize));
  }

  bool ReadPort() {
    if (settings_.client_ids == 0) {
      std::fputs("No client enabled\n", stderr);
      LogUsage();
      return false;
    }
    const bool good = TakeStart("metrics.listenPort", &settings_.listen_port);
    if (settings_.listen_port.empty()) std::fputs("Missing port\n", stderr);
    if (good) return true;
    LogUsage();
    return false;
  }

  const boost::property_tree::ptree& tree_;
  CtxtCore::Settings& settings_;
};

}  // namespace

bool LoadCtxtOptions(const std::string& path, boost::property_tree::ptree* whole,
                     boost::property_tree::ptree* engine, CtxtCore::Settings* settings) {
  namespace xml = boost::property_tree::xml_parser;
  ZLOG_INFO("CtxtEng: Try loading config file: %s", path.c_str());
  try {
    boost::property_tree::read_xml(path, *whole, xml::no_comments | xml::trim_whitespace);
  } catch (const boost::property_tree::ptree_error& error) {
    ZLOG_WARN("CtxtEng: %s", error.what());
    return false;
  }
  const auto child = whole->get_child_optional("config.ctxteng");
  if (!child) {
    ZLOG_WARN("CtxtEng: %s has no config.ctxteng", path.c_str());
    return false;
  }
  *engine = *child;
  return Reader(*engine, *settings).Read();
}

}  // namespace Ctxt
