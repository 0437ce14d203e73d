#include "app/ctxteng/engine/ctxt_options.h"

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cstdio>
#include <limits>
#include <optional>

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The start parameters are kept in buffers of these sizes.
constexpr size_t kWorkerThreadsSize = 4;
constexpr size_t kMaxEventsSize = 2;
constexpr size_t kListenPortSize = 5;

void LogUsage() {
  ZLOG_CTX_ERROR(1,
                 "CtxtEng: Usage: Put configuration in zem-ctxteng.xml. At least one client and listen port "
                 "needs to be specified.");
}

// A number of the identity firewall; none of them makes sense as 0.
struct IdfwNumber {
  const char* key;
  uint32_t CtxtClientParam::*member;
};
constexpr std::array kIdfwNumbers = {
    IdfwNumber{"IdfwConfig.CacheLimit", &CtxtClientParam::cacheLimit},
    IdfwNumber{"IdfwConfig.TimerInterval", &CtxtClientParam::timerInterval},
    IdfwNumber{"IdfwConfig.AckTimeout", &CtxtClientParam::ackTimeout},
    IdfwNumber{"IdfwConfig.CacheThreshold", &CtxtClientParam::cacheThreshold},
    IdfwNumber{"IdfwConfig.MaxBackoffCounter", &CtxtClientParam::maxBackoffCounter},
};

// An option of intrusion detection: one that may be absent keeps its default without a word; a zero or an
// empty text gives the default and the warning.
struct IdsNumber {
  const char* key;
  uint32_t IdsParam::*member;
  bool optional;
  const char* warning;
};
struct IdsText {
  const char* key;
  std::string IdsParam::*member;
  bool optional;
  const char* warning;
};
constexpr std::array kIdsNumbers = {
    IdsNumber{"IdsConfig.criticalQSize", &IdsParam::criticalQSize, false,
              "Critical queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalQSize", &IdsParam::nonCriticalQSize, false,
              "Non critical queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.kafkaQSize", &IdsParam::kafkaQSize, false,
              "Kafka queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.extLogQSize", &IdsParam::extLogQSize, false,
              "External logging  queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalPcapQSize", &IdsParam::criticalPcapQSize, true,
              "Critical pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalPcapQSize", &IdsParam::nonCriticalPcapQSize, true,
              "Non critical pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.pcapKafkaQSize", &IdsParam::pcapKafkaQSize, true,
              "Kafka pcap queue size must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalSendFreqS", &IdsParam::criticalSendFreqS, false,
              "Critical queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalSendFreqS", &IdsParam::nonCriticalSendFreqS, false,
              "Non critical queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.criticalSendPcapFreqS", &IdsParam::criticalSendPcapFreqS, true,
              "pcap critical sending frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.nonCriticalSendPcapFreqS", &IdsParam::nonCriticalSendPcapFreqS, true,
              "pcap sending frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.maxPcapsPerProto", &IdsParam::maxPcapsPerProto, true,
              "pcap per proto must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.sendKafkaFreqS", &IdsParam::sendKafkaFreqS, false,
              "Kafka queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.sendPcapKafkaFreqS", &IdsParam::sendPcapKafkaFreqS, false,
              "Pcap kafka queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.extLogSendFreqS", &IdsParam::extLogSendFreqS, false,
              "External log queue send frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.pcapCleanFreq", &IdsParam::pcapCleanFreq, false,
              "Pcap stale file cleanup frequency must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.idsCriticalSeverity", &IdsParam::idsCriticalSeverity, false,
              "Ids critical severity must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.idsSocketRecvLen", &IdsParam::idsSocketRecvLen, false,
              "Ids engine socket receive len must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitThresholdCrit", &IdsParam::rateLimitThresholdCrit, true,
              "Threshold for rate limiting critical events must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitThresholdNonCrit", &IdsParam::rateLimitThresholdNonCrit, true,
              "Threshold for rate limiting non-critical events must be greater than 0, using default of %d"},
    IdsNumber{"IdsConfig.rateLimitExpirationSecs", &IdsParam::rateLimitExpirationSecs, true,
              "Expiration time of rate limiting slots must be greater than 0, using default of %d"},
};
constexpr std::array kIdsTexts = {
    IdsText{"IdsConfig.pcapDirPath", &IdsParam::pcapDirPath, true,
            "IDS engine pcap directory must be provided, using default path %s"},
    IdsText{"IdsConfig.idsSocketName", &IdsParam::idsSocketName, false,
            "IDS engine socket name must be provided, using default path %s"},
    IdsText{"IdsConfig.extLogSocketName", &IdsParam::extLogSocketName, false,
            "IDS engine external socket name must be provided, using default path %s"},
};

class Reader {
 public:
  Reader(const boost::property_tree::ptree& tree, CtxtCore::Settings& settings)
      : tree_(tree), settings_(settings) {}

  bool Read() {
    settings_.worker_threads = tree_.get("metrics.numWorkerThreads", std::string());
    settings_.max_events_per_vm = tree_.get("metrics.maxEventsPerVm", std::string());
    if (!Fits(settings_.worker_threads, kWorkerThreadsSize) ||
        !Fits(settings_.max_events_per_vm, kMaxEventsSize)) {
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
  static bool Fits(const std::string& text, size_t most) { return !text.empty() && text.size() <= most; }

  bool Enabled(const char* key) const { return tree_.get(key, false); }

  void Take(const char* key, bool* value) const { *value = tree_.get(key, *value); }
  void Take(const char* key, std::string* value) const { *value = tree_.get(key, *value); }
  // As a wider number first: the conversion would make 4294967295 of -1, and with it a queue without a bound.
  void Take(const char* key, uint32_t* value) const {
    const auto number = tree_.get<int64_t>(key, *value);
    if (number >= 0 && number <= std::numeric_limits<uint32_t>::max()) *value = static_cast<uint32_t>(number);
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
      const uint32_t standard = param.*row.member;
      Take(row.key, &(param.*row.member));
      if (param.*row.member != 0) continue;
      param.*row.member = standard;
      ZLOG_WARN("CtxtEng: %s must be greater than 0, using default of %u", row.key, standard);
    }
    if (const auto sids = tree_.get_child_optional("IdfwConfig.WellKnownSids")) {
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
      if (!Present(row.key, row.optional)) return false;
      const uint32_t standard = ids.*row.member;
      Take(row.key, &(ids.*row.member));
      if (ids.*row.member != 0) continue;
      ids.*row.member = standard;
      ZLOG_WARN(row.warning, static_cast<int>(standard));
    }
    for (const IdsText& row : kIdsTexts) {
      if (!Present(row.key, row.optional)) return false;
      const std::string standard = ids.*row.member;
      Take(row.key, &(ids.*row.member));
      if (!(ids.*row.member).empty()) continue;
      ids.*row.member = standard;
      ZLOG_WARN(row.warning, standard.c_str());
    }
    ZLOG_INFO("CtxtEng: IDS client is enabled");
    return true;
  }

  bool Present(const char* key, bool optional) const {
    if (optional || tree_.get_child_optional(key)) return true;
    ZLOG_WARN("CtxtEng: The option %s is missing", key);
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
    settings_.listen_port = tree_.get("metrics.listenPort", std::string());
    if (settings_.listen_port.empty()) std::fputs("Missing port\n", stderr);
    if (Fits(settings_.listen_port, kListenPortSize)) return true;
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
