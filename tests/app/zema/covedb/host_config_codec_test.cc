#include "app/zema/covedb/host_config_codec.h"

#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>

#include "app/zema/covedb/logical_switch_codec.h"
#include "covedbclient/codec/address_codec.h"
#include "covedbclient/codec/enum_codec.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

namespace manager = orlane::zem::switching;
namespace store = orlane::zem::covedb;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::util::MessageDifferencer;

// Sets every field of a message, and of all messages inside it, to a distinct value that the store can hold.
class Filler {
 public:
  void Fill(Message* message) {
    const auto& descriptor = *message->GetDescriptor();
    for (int i = 0; i < descriptor.field_count(); ++i) {
      const FieldDescriptor& field = *descriptor.field(i);
      if (field.name() == "vm_information" || field.name() == "vtep_ha_profile") continue;  // never stored
      const int values = field.is_repeated() ? 2 : 1;
      for (int v = 0; v < values; ++v) FillOne(message, field);
    }
  }

 private:
  std::string Text(const FieldDescriptor& field) {
    const std::string& name = field.name();
    const bool is_id = name == "id" || (name.size() > 3 && name.compare(name.size() - 3, 3, "_id") == 0);
    ++count_;
    if (is_id) return UuidText(UuidFromHalves(count_, ~count_));
    if (name == "ipv6_prefix_length") return "64";
    if (name.find("gateway") == std::string::npos && name.find("address") == std::string::npos &&
        name != "subnet_mask" && name != "ping_ip") {
      return name + " " + std::to_string(count_);
    }
    if (name.find("ipv6") != std::string::npos) return "2001:db8::" + std::to_string(count_ % 9999 + 1);
    return "10.0." + std::to_string(count_ / 250) + "." + std::to_string(count_ % 250);
  }

  template <class Value>
  using Setter = void (google::protobuf::Reflection::*)(Message*, const FieldDescriptor*, Value) const;
  template <class Value>
  static void Put(Message* message, const FieldDescriptor& field, Value value, Setter<Value> set,
                  Setter<Value> add) {
    const auto& reflection = *message->GetReflection();
    (reflection.*(field.is_repeated() ? add : set))(message, &field, value);
  }

  void FillOne(Message* message, const FieldDescriptor& field) {
    using R = google::protobuf::Reflection;
    const R& reflection = *message->GetReflection();
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_MESSAGE:
        return Fill(field.is_repeated() ? reflection.AddMessage(message, &field)
                                        : reflection.MutableMessage(message, &field));
      case FieldDescriptor::CPPTYPE_STRING:
        return Put<std::string>(message, field, Text(field), &R::SetString, &R::AddString);
      case FieldDescriptor::CPPTYPE_UINT32:
        return Put<uint32_t>(message, field, ++count_, &R::SetUInt32, &R::AddUInt32);
      case FieldDescriptor::CPPTYPE_UINT64:
        return Put<uint64_t>(message, field, ++count_, &R::SetUInt64, &R::AddUInt64);
      case FieldDescriptor::CPPTYPE_INT32:
        return Put<int32_t>(message, field, static_cast<int32_t>(++count_), &R::SetInt32, &R::AddInt32);
      case FieldDescriptor::CPPTYPE_BOOL:
        return Put<bool>(message, field, true, &R::SetBool, &R::AddBool);
      case FieldDescriptor::CPPTYPE_ENUM: {
        const auto& values = *field.enum_type();
        const int number =
            values.value(static_cast<int>(++enums_ % static_cast<size_t>(values.value_count())))->number();
        return Put<int>(message, field, number, &R::SetEnumValue, &R::AddEnumValue);
      }
      default:
        FAIL() << "a field of a new kind: " << field.full_name();
    }
  }

  uint32_t count_ = 0;
  size_t enums_ = 0;
};

std::string Header() {
  BusHeader header;
  header.type_id = "com.orlane.zem.switching.HostConfigMsg";
  header.correlation_id = "corr-1";
  header.reply_to = "reply-1";
  const std::vector<uint8_t> bytes = header.Encode();
  return {bytes.begin(), bytes.end()};
}

// A field that one direction does not convert is missing from the result, even a new field of either family.
TEST(HostConfigCodecTest, EveryFieldGoesToTheStoreAndBack) {
  manager::HostConfigMsg message;
  Filler filler;
  for (int round = 0; round < 5; ++round) {  // each enumeration takes each value
    message.Clear();
    filler.Fill(&message);
    store::RealizedHostConfigMsg stored;
    ASSERT_EQ(EncodeHostConfigMsg(message, &stored), 0);
    stored.mutable_amqp_header()->set_header(Header());
    manager::HostConfigMsg back;
    std::string correlation_id, reply_to, difference;
    ASSERT_EQ(DecodeHostConfigMsg(stored, &back, &correlation_id, &reply_to), 0);
    EXPECT_EQ(correlation_id, "corr-1");
    EXPECT_EQ(reply_to, "reply-1");
    MessageDifferencer differencer;
    differencer.ReportDifferencesToString(&difference);
    EXPECT_TRUE(differencer.Compare(message, back)) << difference;
  }
}

TEST(HostConfigCodecTest, AnAbsentFieldStaysAbsent) {
  manager::HostConfigMsg message;
  message.set_id("00000001-0000-4000-8000-000000000001");
  message.add_host_switches();
  store::RealizedHostConfigMsg stored;
  ASSERT_EQ(EncodeHostConfigMsg(message, &stored), 0);
  EXPECT_EQ(stored.host_switches(0).ByteSizeLong(), 0u);
  manager::HostConfigMsg back;
  std::string correlation_id, reply_to;
  const test::LogCapture log;
  EXPECT_EQ(DecodeHostConfigMsg(stored, &back, &correlation_id, &reply_to), -1);
  EXPECT_TRUE(log.Contains("AMQP headers not found for Realized HostConfigMsg"));
  EXPECT_TRUE(MessageDifferencer::Equals(message, back))
      << "filled all the same: " << back.ShortDebugString();
  for (const std::string& header :
       {std::string("\x05\0\0\0", 4), std::string(5, '\xff'), Header().substr(1)}) {
    stored.mutable_amqp_header()->set_header(header);
    EXPECT_EQ(DecodeHostConfigMsg(stored, &back, &correlation_id, &reply_to), -1);
  }
}

TEST(HostConfigCodecTest, ABadFieldIsLeftOutAndLogged) {
  const test::LogCapture log;
  manager::HostConfigMsg message;
  store::RealizedHostConfigMsg stored;
  message.set_id("no uuid");
  EXPECT_EQ(EncodeHostConfigMsg(message, &stored), -1);
  EXPECT_TRUE(log.Contains("Failed to set key for hostConfigMsg"));
  message.set_id("00000001-0000-4000-8000-000000000001");
  auto& host_switch = *message.add_host_switches();
  host_switch.set_name("n");
  host_switch.set_default_gateway("10.0.0");
  host_switch.set_subnet_mask("ffff::");
  host_switch.set_ipv6_prefix_length("6 4");
  host_switch.add_vteps()->set_ipv4_address("nowhere");
  host_switch.add_transport_zone_id("z");
  ASSERT_EQ(EncodeHostConfigMsg(message, &stored), 0);
  const store::HostSwitchMsg& out = stored.host_switches(0);
  EXPECT_EQ(out.ShortDebugString(), "name: \"n\" vteps { }");
  EXPECT_TRUE(log.Contains("In [EncodeIpAddressMsg] Error: Exception: "));
  EXPECT_TRUE(log.Contains("Obtained an input which is not an ipv4 subnet: ffff::"));
}

TEST(HostConfigCodecTest, APrefixLengthIsTheSwitchesAndItsIpv6EndpointsOwn) {
  manager::HostSwitchMsg message;
  message.set_ipv6_prefix_length("");
  store::HostSwitchMsg stored;
  EncodeHostSwitchMsg(message, &stored);
  EXPECT_TRUE(stored.has_ipv6_prefix_length());
  EXPECT_EQ(stored.ipv6_prefix_length(), 0u);
  message.set_ipv6_prefix_length("64");
  auto& vtep = *message.add_vteps();
  vtep.set_ipv4_address("10.1.2.3");
  vtep.set_ipv6_address("2001:db8::1");
  stored.Clear();
  EncodeHostSwitchMsg(message, &stored);
  ASSERT_EQ(stored.vteps(0).address_size(), 2);
  EXPECT_EQ(stored.vteps(0).address(0).address().ipv4(), 0x0a010203u);
  EXPECT_EQ(stored.vteps(0).address(0).prefix_length(), 0u);
  EXPECT_EQ(stored.vteps(0).address(1).prefix_length(), 64u);
  stored.clear_ipv6_prefix_length();
  manager::HostSwitchMsg back;
  DecodeHostSwitchProfiles(stored, &back);
  EXPECT_EQ(back.ipv6_prefix_length(), "64") << "from the endpoint";
}

TEST(HostConfigCodecTest, AnEnumerationOutsideItsTableIsLeftOut) {
  struct Row {
    const char* error;
    std::function<void(store::HostSwitchMsg&, int)> set;
    std::function<int(const manager::HostSwitchMsg&)> get;  // -1: absent
    std::vector<std::pair<int, int>> values;
  };
  const auto uplinks = [](store::HostSwitchMsg& m) -> store::UplinkProfileMsg& {
    return *m.mutable_profiles()->mutable_uplink_profile();
  };
  const auto up = [](const manager::HostSwitchMsg& m) { return m.profiles().uplink_profile(); };
  const auto lag = [&](store::HostSwitchMsg& m) -> store::LagConfigMsg& { return *uplinks(m).add_lag(); };
  const Row rows[] = {
      {"Invalid HostSwitchMsg_SwitchMode",
       [](auto& m, int v) { m.set_switch_mode(v); },
       [](auto& m) { return m.has_switch_mode() ? m.switch_mode() : -1; },
       {{0, -1}, {1, 0}, {2, 1}, {3, 2}, {4, 3}, {5, -1}}},
      {"Invalid UplinkProfileMsg_TeamingPolicyType",
       [&](auto& m, int v) { uplinks(m).set_teaming_policy(v); },
       [&](auto& m) { return up(m).has_teaming_policy() ? up(m).teaming_policy() : -1; },
       {{0, -1}, {1, 0}, {3, 2}, {4, -1}}},
      {"Invalid UplinkMsg_UplinkType",
       [&](auto& m, int v) { uplinks(m).add_active_uplink()->set_type(v); },
       [&](auto& m) { return up(m).active_uplink(0).has_type() ? up(m).active_uplink(0).type() : -1; },
       {{0, -1}, {1, 0}, {2, 1}, {3, -1}}},
      {"Invalid LagConfigMsg_LacpMode",
       [&](auto& m, int v) { lag(m).set_mode(v); },
       [&](auto& m) { return up(m).lag(0).has_mode() ? up(m).lag(0).mode() : -1; },
       {{0, -1}, {1, 0}, {2, 1}, {3, -1}}},
      {"Invalid LagConfigMsg_LoadBalanceAlgo",
       [&](auto& m, int v) { lag(m).set_load_balance_algo(v); },
       [&](auto& m) { return up(m).lag(0).has_load_balance_algo() ? up(m).lag(0).load_balance_algo() : -1; },
       {{0, -1}, {1, 0}, {5, 4}, {6, -1}}},
      {"Invalid LagConfigMsg_LacpTimeoutType",
       [&](auto& m, int v) { lag(m).set_timeout_type(v); },
       [&](auto& m) { return up(m).lag(0).has_timeout_type() ? up(m).lag(0).timeout_type() : -1; },
       {{0, -1}, {1, 0}, {2, 1}, {-1, -1}}},
      {"Invalid HighPerformanceConfigTypeEnum",
       [](auto& m, int v) {
         m.mutable_profiles()->mutable_high_performance_profile()->add_config()->set_type(v);
       },
       [](auto& m) {
         const auto& config = m.profiles().high_performance_profile().config(0);
         return config.has_type() ? config.type() : -1;
       },
       {{0, 0}, {1, 1}, {3, 3}, {4, -1}}},
  };
  for (const Row& row : rows) {
    for (const auto& [stored_value, value] : row.values) {
      const test::LogCapture log;
      store::HostSwitchMsg stored;
      row.set(stored, stored_value);
      manager::HostSwitchMsg out;
      DecodeHostSwitchProfiles(stored, &out);
      EXPECT_EQ(row.get(out), value) << row.error << " " << stored_value;
      EXPECT_EQ(log.Contains(std::string("Exception: ") + row.error), value == -1)
          << row.error << " " << stored_value;
    }
  }
}

TEST(AddressCodecTest, BytesThatAreNoAddressAreRefused) {
  std::string text;
  unsigned prefix = 0;
  store::IpAddressMsg address;
  EXPECT_EQ(DecodeIpAddressMsg(address, &text), 0);
  EXPECT_EQ(text, "");
  address.set_ipv6("short");
  EXPECT_EQ(DecodeIpAddressMsg(address, &text), -1);
  store::IpAddressWithPrefixMsg with_prefix;
  EXPECT_EQ(EncodeIpAddressWithPrefixMsg("", 7, &with_prefix), 0);
  EXPECT_EQ(DecodeIpAddressWithPrefixMsg(with_prefix, &text, &prefix), 0);
  EXPECT_EQ(prefix, 7u);
  EXPECT_EQ(text, "");
  orlane::zem::UuidMsg uuid;
  EXPECT_FALSE(UUID_FromString("00000001-0000-4000-8000-00000000000", &uuid));
}

TEST(LogicalSwitchCodecTest, ARemovalIsMadeFromTheObjectBeforeIt) {
  struct Row {
    int operation;
    bool has_value;
    const char* expected;
  };
  constexpr const char* kUuid = "00000000-0000-0001-0000-000000000002";
  store::OpaqueLogSwitchConfigMsg whole;
  ASSERT_TRUE(UUID_FromString(kUuid, whole.mutable_id()));
  ASSERT_TRUE(UUID_FromString("00000000-0000-0003-0000-000000000004", whole.mutable_transport_zone_id()));
  whole.set_revision(7);
  whole.set_name("n");
  whole.set_segment_path("/p");
  store::OpaqueLogSwitchConfigMsg key;
  *key.mutable_id() = whole.id();
  const std::string numbers =
      "transport_zone_id: \"00000000-0000-0003-0000-000000000004\" revision: 7 logical_switch_id: \"" +
      std::string(kUuid) + "\" name: \"n\" ";
  const std::pair<store::OpaqueLogSwitchConfigMsg, std::pair<int, std::string>> rows[] = {
      {whole, {store::ObjectOpMsg::SET, numbers + "operation: 0 path: \"/p\""}},
      {whole, {store::ObjectOpMsg::CLEAR, numbers + "operation: 1 path: \"/p\""}},
      {key, {store::ObjectOpMsg::DELETE, numbers + "operation: 2"}},
      {{}, {store::ObjectOpMsg::DELETE, numbers + "operation: 2"}},
      {key, {99, "logical_switch_id: \"" + std::string(kUuid) + "\""}},
  };
  for (const auto& [config, row] : rows) {
    store::OpaqueLogSwitchConfigOpMsg op;
    op.set_operation(row.first);
    manager::LogicalSwitchMsg out;
    EXPECT_EQ(DecodeOpaqueLogSwitchMsg(config, op, whole, &out), 0);
    ASSERT_EQ(out.logical_switch_info_size(), 1);
    EXPECT_EQ(out.logical_switch_info(0).ShortDebugString(), row.second);
  }
}

}  // namespace
}  // namespace zem::zema
