#pragma once

#include <cstdint>

#include "framework/options/option_row.h"

/// Every option of the realization's file.
namespace zem::Tarvik {

/// The part that uses a number decides what one below zero means to it; most take it as none.
constexpr OptionRow RealizationNumber(std::string_view key, std::string_view standard,
                                      std::string_view effect, int64_t least = kLeastWhole) {
  return NumberOption(key, least, kMostWhole, standard, effect);
}

inline constexpr OptionRow kRealizationOptionRows[] = {
    RealizationNumber("hostConfig.HostConfigReplyTimeout", "20",
                      "seconds in which the manager has to take the answer to a host configuration"),
    TextOption("hostConfig.knlTypesToCheckOnRemovingPnic", "management",
               "kernel interfaces of these types keep their uplinks"),
    RealizationNumber("hostConfig.dvsReadyPollTimeout", "90",
                      "seconds until a switch that the host makes at its start has to be ready"),
    RealizationNumber("hostConfig.cklnHotSwapInitDelay", "5",
                      "seconds before the first exchange of unused interfaces"),
    RealizationNumber("hostConfig.cklnHotSwapRetryInterval", "30", "seconds before it is tried again"),
    RealizationNumber("hostConfig.snicHostConfigReplyTimeout", "120",
                      "the time for the answer on a host with a smart NIC"),
    TextOption("hostConfig.hostSwitchModeStandardRealization", "auto",
               "whether switches are made in the standard mode"),
    RealizationNumber("zema.HealthUpdateRetryCount", "5", "how often a health report is tried again"),
    RealizationNumber("zema.IfupTimeoutInSec", "60", "seconds that bringing up an interface may take"),
    FlagOption("zema.runAsRoot", false, "the agent keeps the rights of root"),
    TextOption("zema.group", "cfgagent", "the group of the agent's files"),
    FlagOption("zema.controller-info", false, "the list of controllers is written for other programs"),
    FlagOption("zema.preCheckHealth", true, "a configuration waits until the node's parts are healthy"),
    TextOption("zema.logLevel", "unset", "the log level of the host's proxy; unset leaves it"),
    FlagOption("zema.onSmartNic", false, "the agent runs on a smart NIC, without a host management"),
    RealizationNumber("vtepDhcpIpTimeoutConfig.vtepDhcpIpFetchingTimeout", "8",
                      "seconds between two looks for the address of an endpoint"),
    RealizationNumber("vtepOperations.snicVtepOperationsRpcTimeout", "120",
                      "seconds that a smart NIC may take for an endpoint"),
    RealizationNumber("highPerformanceProfile.retryIntervalSec", "60",
                      "seconds before a high performance profile is tried again"),
    RealizationNumber("mp.vifOperationTimeout", "55",
                      "seconds that the manager may take for an operation on an interface; the default is 25 "
                      "on hosts before 6.5.0 Update 2",
                      25)
        .Instead(25),
    RealizationNumber("mp.lsAckBatchInterval", "0",
                      "seconds between two acknowledgements of switches; 0 sends each on its own"),
    RealizationNumber("mp.lsIncomingWaitInBatch", "0",
                      "seconds without a switch after which a batch is closed; not above "
                      "mp.lsAckBatchInterval"),
    RealizationNumber("mp.lsMsgBatchInterval", "60", "seconds between two batches of switches"),
    RealizationNumber("mp.lsMsgIncomingWaitInBatch", "5",
                      "seconds without a switch after which a batch is closed; not above "
                      "mp.lsMsgBatchInterval"),
    RealizationNumber("mp.lsDbRetryInterval", "30", "seconds before switches are written to the store again"),
    RealizationNumber("resync.intervalInSec", "3600", "seconds between two passes that compare the host"),
    FlagOption("resync.disabled", false, "there are no such passes"),
    RealizationNumber("resync.vmCheckFrequency", "200", "passes between two looks at the VMs"),
    TextOption("lum.noVxlanStack", "unset", "true: the host's proxy makes no stack for endpoints"),
    RealizationNumber("lum.knlPingTryTimes", "4", "pings after a migration; below 1 there is none"),
    RealizationNumber("lum.opaqueNetworkApplyMax", "1000", "switches that are told to the host at a time", 1)
        .Refused(),
    RealizationNumber("lum.opaqueNetworkDeleteMax", "1000", "switches that are taken back at a time", 1)
        .Refused(),
    RealizationNumber("lum.maxRetryZemaLumReady", "60",
                      "how often the host's proxy is asked whether it is ready"),
    TextOption("guestLaneInterface.deviceName", "", "the interface to the guests"),
    TextOption("guestLaneInterface.ip", "", "its address"),
    TextOption("guestLaneInterface.netmask", "", "its netmask"),
    TextOption("scaleSimulation.state", "", "enabled: interfaces of no VM are attached, to measure"),
    RealizationNumber("scaleSimulation.numLp", "2", "how many"),
    RealizationNumber("scaleSimulation.batchSize", "18", "how many at a time"),
    RealizationNumber("scaleSimulation.batchIntervalSec", "12", "seconds between two times"),
    TextOption("scaleSimulation.tzUuid", "", "the transport zone"),
    TextOption("scaleSimulation.lsList", "", "the switches"),
};

using RealizationOptionKey = KeyOf<kRealizationOptionRows>;

/// An option that may not be above another; the file is not used when it is.
struct OptionOrder {
  RealizationOptionKey smaller;
  RealizationOptionKey greater;
};
inline constexpr OptionOrder kRealizationOrders[] = {
    {"mp.lsIncomingWaitInBatch", "mp.lsAckBatchInterval"},
    {"mp.lsMsgIncomingWaitInBatch", "mp.lsMsgBatchInterval"},
};

}  // namespace zem::Tarvik
