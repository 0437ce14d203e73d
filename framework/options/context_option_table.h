#pragma once

#include <cstdint>
#include <limits>

#include "framework/options/option_row.h"

/// Every option of the context engine's file.
namespace zem::Tarvik {

inline constexpr int64_t kMostContextNumber = std::numeric_limits<uint32_t>::max();

constexpr OptionRow ContextNumber(std::string_view key, std::string_view standard, std::string_view effect,
                                  int64_t least = 1) {
  return NumberOption(key, least, kMostContextNumber, standard, effect);
}
constexpr OptionRow IdfwNumber(std::string_view key, std::string_view standard, std::string_view effect) {
  return ContextNumber(key, standard, effect).With("clients.IdfwClient");
}
constexpr OptionRow IdsNumber(std::string_view key, std::string_view standard, std::string_view effect) {
  return ContextNumber(key, standard, effect).With("clients.IdsClient");
}
constexpr OptionRow IdsText(std::string_view key, std::string_view standard, std::string_view effect) {
  return TextOption(key, standard, effect, 1).With("clients.IdsClient");
}
constexpr OptionRow PaceNumber(std::string_view key, std::string_view effect) {
  return ContextNumber(key, "1000", effect, 0).With("clients.ZemiClient");
}

inline constexpr OptionRow kContextOptionRows[] = {
    TextOption("metrics.numWorkerThreads", "", "threads on which the guest library delivers", 1, 4)
        .Refused()
        .Needed(),
    TextOption("metrics.maxEventsPerVm", "", "events of one guest that the guest library keeps", 1, 2)
        .Refused()
        .Needed(),
    TextOption("metrics.listenPort", "", "the port on which the guest library listens", 1, 5)
        .Refused()
        .Needed(),
    FlagOption("clients.sampleClient", false, "runs the sample client of the engine"),
    FlagOption("clients.IdfwClient", false, "tells the manager who is logged on where"),
    FlagOption("clients.IdsClient", false, "takes the alerts of intrusion detection"),
    FlagOption("clients.ZemiClient", false, "reports the guests' flows, processes and users"),
    ContextNumber("CoreConfig.UserMetadataCacheSize", "1000", "users whose names and groups are kept", 0),
    FlagOption("CoreConfig.EnableProcessHash", true, "the hashes of processes are asked for"),
    FlagOption("CoreConfig.UseOldProcessHashMethod", true, "they are asked for the older way"),
    TextOption("CoreConfig.DpuId", "", "the host's DPU, where intrusion detection then runs"),
    IdfwNumber("IdfwConfig.CacheLimit", "1000", "logons that are kept until they are sent"),
    IdfwNumber("IdfwConfig.TimerInterval", "60", "seconds between two sendings"),
    IdfwNumber("IdfwConfig.AckTimeout", "10", "seconds in which the manager has to acknowledge one"),
    IdfwNumber("IdfwConfig.CacheThreshold", "100", "percent of the limit at which it is sent at once"),
    IdfwNumber("IdfwConfig.MaxBackoffCounter", "8", "how often the wait before a repetition may grow"),
    ListOption("IdfwConfig.WellKnownSids", "security ids that are no user's").With("clients.IdfwClient"),
    IdsNumber("IdsConfig.criticalQSize", "500", "critical events that may wait").Needed(),
    IdsNumber("IdsConfig.nonCriticalQSize", "1000", "other events that may wait").Needed(),
    IdsNumber("IdsConfig.kafkaQSize", "500", "events that may wait for Kafka").Needed(),
    IdsNumber("IdsConfig.extLogQSize", "1000", "events that may wait for the external log").Needed(),
    IdsNumber("IdsConfig.criticalPcapQSize", "500", "critical packet captures that may wait"),
    IdsNumber("IdsConfig.nonCriticalPcapQSize", "1000", "other packet captures that may wait"),
    IdsNumber("IdsConfig.pcapKafkaQSize", "500", "packet captures that may wait for Kafka"),
    IdsNumber("IdsConfig.criticalSendFreqS", "5", "seconds between two sendings of critical events").Needed(),
    IdsNumber("IdsConfig.nonCriticalSendFreqS", "60", "seconds between two sendings of other events")
        .Needed(),
    IdsNumber("IdsConfig.criticalSendPcapFreqS", "5", "the same for critical packet captures"),
    IdsNumber("IdsConfig.nonCriticalSendPcapFreqS", "60", "the same for other packet captures"),
    IdsNumber("IdsConfig.maxPcapsPerProto", "20", "packet captures of one protocol that are taken"),
    IdsText("IdsConfig.pcapDirPath", "/var/log/zem-idps/pcaps", "the folder of the packet captures"),
    IdsNumber("IdsConfig.sendKafkaFreqS", "2", "seconds between two sendings to Kafka").Needed(),
    IdsNumber("IdsConfig.sendPcapKafkaFreqS", "2", "the same for packet captures").Needed(),
    IdsNumber("IdsConfig.extLogSendFreqS", "35", "seconds between two sendings to the external log").Needed(),
    IdsNumber("IdsConfig.pcapCleanFreq", "60", "minutes between two removals of old packet captures")
        .Needed(),
    IdsNumber("IdsConfig.idsCriticalSeverity", "2", "events up to this severity are critical").Needed(),
    IdsText("IdsConfig.idsSocketName", "/var/log/zem-idps/eve.socket", "where the engine sends its events")
        .Needed(),
    IdsNumber("IdsConfig.idsSocketRecvLen", "1500", "bytes of an event that are taken; the rest is cut")
        .Needed(),
    IdsText("IdsConfig.extLogSocketName", "/var/log/zem-idps/zem-idps-events.socket",
            "where the events for the external log come from")
        .Needed(),
    IdsNumber("IdsConfig.rateLimitThresholdCrit", "250", "critical events of one slot before they are cut"),
    IdsNumber("IdsConfig.rateLimitThresholdNonCrit", "150", "other events of one slot before they are cut"),
    IdsNumber("IdsConfig.rateLimitExpirationSecs", "600", "seconds until a slot counts anew"),
    PaceNumber("PaceConfig.NetworkEventQueueSize", "network events that may wait"),
    PaceNumber("PaceConfig.VmEventQueueSize", "events of guests that may wait"),
    PaceNumber("PaceConfig.UserEventQueueSize", "events of users that may wait"),
};

using ContextOptionKey = KeyOf<kContextOptionRows>;

/// The engine starts with one of them at least.
inline constexpr std::string_view kContextClients[] = {"clients.sampleClient", "clients.IdfwClient",
                                                       "clients.IdsClient", "clients.ZemiClient"};

}  // namespace zem::Tarvik
