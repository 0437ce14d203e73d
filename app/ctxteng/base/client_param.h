#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zem {
class AsioZemProvider;
}

/// The options of intrusion detection; times in the unit that the name ends with.
struct IdsParam {
  uint32_t criticalQSize = 500;
  uint32_t nonCriticalQSize = 1000;
  uint32_t kafkaQSize = 500;
  uint32_t extLogQSize = 1000;
  uint32_t criticalPcapQSize = 500;
  uint32_t nonCriticalPcapQSize = 1000;
  uint32_t pcapKafkaQSize = 500;
  uint32_t criticalSendFreqS = 5;
  uint32_t nonCriticalSendFreqS = 60;
  uint32_t criticalSendPcapFreqS = 5;
  uint32_t nonCriticalSendPcapFreqS = 60;
  uint32_t maxPcapsPerProto = 20;
  std::string pcapDirPath = "/var/log/zem-idps/pcaps";
  uint32_t sendKafkaFreqS = 2;
  uint32_t sendPcapKafkaFreqS = 2;
  uint32_t extLogSendFreqS = 35;
  uint32_t pcapCleanFreq = 60;  // minutes
  uint32_t idsCriticalSeverity = 2;
  std::string idsSocketName = "/var/log/zem-idps/eve.socket";
  uint32_t idsSocketRecvLen = 1500;
  std::string extLogSocketName = "/var/log/zem-idps/zem-idps-events.socket";
  uint32_t rateLimitThresholdCrit = 250;
  uint32_t rateLimitThresholdNonCrit = 150;
  uint32_t rateLimitExpirationSecs = 600;
};

/// What the option file says about the engine's clients, with the options' own names.  A plain record, copied
/// into the thread that starts the clients.
struct CtxtClientParam {
  uint32_t userMetadataCacheSize = 1000;
  bool enableProcessHash = true;
  bool useOldProcessHashMethod = true;
  uint32_t cacheLimit = 1000;
  uint32_t timerInterval = 60;    // seconds
  uint32_t ackTimeout = 10;       // seconds
  uint32_t cacheThreshold = 100;  // percent
  uint32_t maxBackoffCounter = 8;
  std::vector<std::string> wellKnownSids;
  /// The id of the host's DPU; empty on a host without one.
  std::string dpuId;
  IdsParam ids;
  /// Set when intrusion detection is enabled.
  zem::AsioZemProvider* provider = nullptr;
  uint32_t networkEventQueueSize = 1000;
  uint32_t vmEventQueueSize = 1000;
  uint32_t userEventQueueSize = 1000;
};
