// The judge of the intrusion alerts: what it must object to, and what it must let pass.

#include "sim/ids/ids_ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "proto/context/ids.pb.h"

namespace zem::sim {
namespace {

using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

EventInfoMsg Events(uint32_t count, uint32_t signature = 7) {
  EventInfoMsg message;
  message.mutable_site_uuid()->set_first(1);
  message.set_version(1);
  auto* const info = message.add_event_info();
  info->set_signature_id(signature);
  info->set_vm_uuid("vm");
  info->mutable_src_ip()->set_ipv4(0x0A000002);
  info->mutable_dest_ip()->set_ipv4(0x0A000001);
  info->set_count(count);
  return message;
}

PcapInfoMsg Pcaps(const std::string& bytes) {
  PcapInfoMsg message;
  message.mutable_site_uuid()->set_first(1);
  message.set_version(1);
  auto* const pcap = message.add_pcap();
  pcap->mutable_pcap_id()->set_first(3);
  pcap->mutable_pcap_id()->set_second(4);
  pcap->set_data(bytes);
  pcap->set_length(bytes.size());
  return message;
}

class IdsLedgerTest : public ::testing::Test {
 protected:
  IdsLedgerTest() {
    for (int i = 0; i < 3; ++i) ledger.AnnounceAlert(7, "vm", "10.0.0.1", "10.0.0.2");
    ledger.AnnounceCapture(3, 4, "bytes");
  }
  IdsLedger ledger;
};

TEST_F(IdsLedgerTest, WhatWasAnnouncedPassesOnceAndTurnedAround) {
  ledger.Take(Events(2));
  ledger.Take(Events(1));
  ledger.Take(Pcaps("bytes"));
  EXPECT_THAT(ledger.violations(), IsEmpty());
  EXPECT_EQ(ledger.arrived().alerts, 3U);
  EXPECT_EQ(ledger.arrived().entries, 2U);
  EXPECT_EQ(ledger.arrived().captures_with_bytes, 1U);
  ledger.Take(Events(1));
  EXPECT_THAT(ledger.violations(), ElementsAre(HasSubstr("more alerts than were sent")));
}

TEST_F(IdsLedgerTest, InventedAndSpoiled) {
  ledger.Take(Events(1, 8));
  ledger.Take(Pcaps("other"));
  ledger.Take(Pcaps("bytes"));
  EventInfoMsg bare = Events(0);
  bare.clear_site_uuid();
  bare.mutable_event_info(0)->add_event_metadata();
  ledger.Take(bare);
  ledger.Take(EventInfoMsg());
  EXPECT_THAT(ledger.violations(),
              testing::IsSupersetOf({HasSubstr("an alert that nobody sent: 8"),
                                     HasSubstr("other bytes than the file's: 3.4"),
                                     HasSubstr("a capture more often than it was announced: 3.4"),
                                     HasSubstr("without site or version"), HasSubstr("counts no alert"),
                                     HasSubstr("metadata for the manager"), HasSubstr("without alerts")}));
}

}  // namespace
}  // namespace zem::sim
