#include "app/ipreputation/ip_reputation_mp_channel.h"

#include <utility>

#include "framework/log/log.h"
#include "mpaclient/verticals.h"
#include "platform/core/uuid.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "ipreputation"};

// Without the prefix of the other types.
constexpr const char* kReportType = "orlane.zem.firewall.IpReputationService.IpReputationEventRequestMsg";

const Vertical& Row() { return GetVertical(VerticalId::kIpReputation); }

}  // namespace

IpReputationMpChannel::IpReputationMpChannel(AsioZemProvider& provider)
    : vertical_(provider, Row(), {.intercept = [](const VerticalRecord& record) {
                  Receive(record);
                  return true;
                }}) {}

IpReputationMpChannel::~IpReputationMpChannel() = default;

void IpReputationMpChannel::Connect() {
  vertical_.Start();
  ZLOG_INFO("Connected to MPA channel, appID: %s, appType: %s", Row().app_id, Row().name);
}

void IpReputationMpChannel::Stop() {
  ZLOG_INFO("Stopping Ip Reputation  Messaging Service.");
  vertical_.Stop();
}

void IpReputationMpChannel::Receive(const VerticalRecord& record) {
  ZLOG_INFO("IpReputation Mp Channel ignoring Received s msg \n");
  switch (record.type()) {
    case kRmqClientRegistrationAck:
      ZLOG_INFO("Received Registration ACK");
      return;
    case kRmqClientClose:
      ZLOG_INFO("Received client close");
      return;
    default:
      ZLOG_INFO("Got Message in App Id:%s Type:%s", Row().app_id, BusMessageTypeName(record.type()));
  }
}

int IpReputationMpChannel::Send(std::string payload) {
  const std::string id = RandomUuidText();
  ZLOG_INFO("Publishing message with  corelationId %s", id.c_str());
  const auto message = vertical_.PrepareAs(kRmqClientPublish, kReportType, std::move(payload), id, "");
  const int32_t cookie = message.record.message().cookie;
  if (vertical_.SendPrepared(message) != VerticalClient::Sent::kSent) {
    ZLOG_ERROR("OPS60004", "Failed to send msg to MP, cookieId = %d, ret: %d", cookie, -1);
    return -1;
  }
  ZLOG_INFO("Successfully sent msg to MP, cookieId = %d", cookie);
  return 0;
}

}  // namespace zem::Tarvik
