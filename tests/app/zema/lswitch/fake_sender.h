#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "app/zema/manager/mpa_message_sender.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

/// Records the messages that would go to the manager, as "operation correlation reply-to message".
class FakeSender : public MpaMessageSender {
 public:
  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(sent_, {});
  }
  /// When set, the next replies cannot be sent.
  bool fails = false;

  bool HostConfigReply(const std::string& c, const std::string& r,
                       const orlane::zem::switching::HostConfigMsg& m) override {
    return Add("HostConfig", c, r, m);
  }
  bool SendHostConfigAckMsg(const std::string& r,
                            const orlane::zem::switching::HostConfigAckMsg& m) override {
    return Add("HostConfigAck", "", r, m);
  }
  bool TnMmodeConfigReply(const std::string& c, const std::string& r,
                          const orlane::zem::switching::MaintenanceModeConfigResultMsg& m) override {
    return Add("TnMmode", c, r, m);
  }
  bool VtepRecoveryReply(const std::string& c, const std::string& r,
                         const orlane::zem::switching::VTEPRecoveryResultMsg& m) override {
    return Add("VtepRecovery", c, r, m);
  }
  bool VtepAdminStateReply(const std::string& c, const std::string& r,
                           const orlane::zem::switching::VTEPAdminStateMgmtResultMsg& m) override {
    return Add("VtepAdminState", c, r, m);
  }
  bool LogicalSwitchReply(const std::string& r, const orlane::zem::switching::LogicalSwitchMsg& m) override {
    return Add("LogicalSwitch", "", r, m);
  }
  bool LogicalSwitchFullSyncReply(const std::string& c, const std::string& r,
                                  const orlane::zem::switching::LogicalSwitchBulkMsg& m) override {
    return Add("FullSync", c, r, m);
  }
  bool SendTransportNodeEventMsg(const std::string& r,
                                 const orlane::zem::switching::TransportNodeEventMsg& m) override {
    return Add("Event", "", r, m);
  }
  bool SendRestoreReplyMsg(const std::string& r, const orlane::zem::switching::ChecksumMsg& m) override {
    return Add("Restore", "", r, m);
  }
  bool HostProfileReply(const std::string& c, const std::string& r,
                        const orlane::zem::switching::HostProfileMsg& m) override {
    return Add("HostProfile", c, r, m);
  }
  bool HostSwitchMigrationToKlnReply(
      const std::string& c, const std::string& r,
      const orlane::zem::switching::TransportNodeHostSwitchesMigrationMsg& m) override {
    return Add("Migration", c, r, m);
  }

 private:
  bool Add(const char* operation, const std::string& correlation_id, const std::string& reply_to,
           const google::protobuf::Message& message) {
    const std::lock_guard lock(mutex_);
    sent_.push_back(std::string(operation) + " " + correlation_id + " " + reply_to + " " +
                    message.ShortDebugString());
    return !fails;
  }

  std::mutex mutex_;  // guards sent_
  std::vector<std::string> sent_;
};

}  // namespace zem::zema
