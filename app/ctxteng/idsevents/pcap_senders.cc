#include "app/ctxteng/idsevents/pcap_senders.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "app/ctxteng/idsevents/fence.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "app/ctxteng/idsrecord/event_info.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "proto/context/ids.pb.h"

namespace IdsEvtEng {
namespace {

using orlane::zem::context::ids::PcapInfoMsg;
using orlane::zem::context::ids::PcapMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr uint32_t kVersion = 1;
// What an entry and a message cost beside the files' bytes; both generous.
constexpr size_t kEntryFrame = 64;
constexpr size_t kMessageFrame = 128;

// Minutes; more than 150 years would not fit into nanoseconds.
constexpr uint32_t kLongestCleanFreq = 50'000'000;

constexpr const char* kNothing = "Pcap message dropped since file can not be attached";

}  // namespace

// The captures of one round, in as many messages as the road's limit asks for.  What is not sent when the
// batch ends, by an exception as well, is counted as dropped.
class PcapSenders::Batch {
 public:
  Batch(PcapSenders& senders, Road* road, bool remove)
      : senders_(senders), road_(*road), remove_(remove), reader_(senders.files_) {}
  ~Batch() {
    const auto entries = in_hand_ + (message_ == nullptr ? 0 : static_cast<uint64_t>(message_->pcap_size()));
    road_.pcap_counters().proto_dropped += entries;
    road_.pcap_counters().alert_dropped += entries;
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  void Add(const IdsEvent& notice) {
    ZLOG_DEBUG("Event type: %s flow id: %lu, snipTsUs: %lu",
               notice.event_type == kAlertEvent ? "Alert" : "Other", notice.flow_id, notice.snip_ts_us);
    in_hand_ = 1;
    if (message_ == nullptr) Begin();
    message_->add_pcap();
    in_hand_ = 0;
    ++added_;
    PcapMsg* entry = message_->mutable_pcap(message_->pcap_size() - 1);
    if (notice.flow_id != 0 && notice.snip_ts_us != 0) SetCaptureId(notice, entry->mutable_pcap_id());
    Attach(entry);
  }

  size_t added() const { return added_; }

  void Send() {
    if (message_ == nullptr) {
      if (added_ == 0) ZLOG_WARN("%s", kNothing);
      return;
    }
    road_.Send(std::exchange(message_, nullptr));
  }

 private:
  void Begin() {
    message_ = std::make_shared<PcapInfoMsg>();
    senders_.services_.GetSiteId(message_->mutable_site_uuid());
    message_->set_version(kVersion);
    bytes_ = kMessageFrame;
  }

  void Attach(PcapMsg* entry) {
    if (!entry->has_pcap_id()) {
      ZLOG_WARN("Empty pcap id");
      return;
    }
    const CaptureKey key{entry->pcap_id().first(), entry->pcap_id().second()};
    auto capture = reader_.Read(key, road_.most_bytes() - kMessageFrame - kEntryFrame, remove_);
    if (!capture) return;
    if (bytes_ + capture->bytes.size() + kEntryFrame > road_.most_bytes() && message_->pcap_size() > 1) {
      // The entry goes into the next message.
      std::unique_ptr<PcapMsg> last(message_->mutable_pcap()->ReleaseLast());
      Send();
      Begin();
      entry = last.get();
      message_->mutable_pcap()->AddAllocated(last.release());
    }
    bytes_ += capture->bytes.size() + kEntryFrame;
    entry->set_length(capture->length);
    entry->set_last_write_time(capture->last_write_s);
    // A file that is too large for a message is known by its length alone.
    if (!capture->bytes.empty() || capture->length == 0) entry->set_data(std::move(capture->bytes));
  }

  PcapSenders& senders_;
  Road& road_;
  const bool remove_;
  CaptureFiles::Reader reader_;
  std::shared_ptr<PcapInfoMsg> message_;
  size_t bytes_ = 0;
  size_t added_ = 0;
  uint64_t in_hand_ = 0;  // the notice that is not in the message yet
};

PcapSenders::PcapSenders(const IdsParam& param, Intake& intake, const CaptureFiles& files, Road& manager,
                         Road& kafka, IIdsServices& services, Interruption& interruption)
    : param_(param),
      intake_(intake),
      files_(files),
      manager_(manager),
      kafka_(kafka),
      services_(services),
      interruption_(interruption) {}

void PcapSenders::RunManager(Class c) {
  const std::chrono::seconds period(c == Class::kCritical ? param_.criticalSendPcapFreqS
                                                          : param_.nonCriticalSendPcapFreqS);
  while (!interruption_.SleepFor(period)) {
    Fenced(736, "Exception while processing pcap events, error %s",
           "Unknown exception while processing pcap events", nullptr, [this, c] { SendBatch(c); });
  }
  ZLOG_INFO("Pcap processing thread interrupted, exiting");
}

void PcapSenders::RunKafka() {
  const std::chrono::seconds period(param_.sendPcapKafkaFreqS);
  while (intake_.kafka_pcaps_ready().WaitFor(period)) {
    Fenced(736, "Exception while processing pcap events, error %s",
           "Unknown exception while processing pcap events", nullptr, [this] { SendKafkaBatch(); });
    intake_.kafka_pcaps_ready().Clear();
  }
  ZLOG_INFO("Pcap Kafka processing thread interrupted, exiting");
}

void PcapSenders::RunCleaner() {
  if (!files_.IsDirectory()) {
    ZLOG_CTX_ERROR(737, "invalid pcap file path: %s", files_.directory().c_str());
    return;
  }
  const std::chrono::minutes period(std::min(param_.pcapCleanFreq, kLongestCleanFreq));
  do {
    Fenced(738, "Exception in Cleanup Stale Pcap, error %s", "Exception in Cleanup Stale Pcap", nullptr,
           [this, period] {
             const zem::LoopStep step("removal of old captures");
             files_.RemoveStale(period);
           });
  } while (!interruption_.SleepFor(period));
  ZLOG_INFO("Cleanup Stale Pcap thread interrupted, exiting");
}

void PcapSenders::SendBatch(Class c) {
  PcapQueue& queue = intake_.pcaps(c);
  const uint32_t count = std::min(queue.count(), param_.maxPcapsPerProto);
  if (count == 0) return;
  const zem::LoopStep step("captures to the manager");
  Batch batch(*this, &manager_, true);
  while (batch.added() < count && !interruption_.stopped()) {
    const auto notice = queue.Pop();
    if (notice == nullptr) break;
    batch.Add(*notice);
  }
  ZLOG_INFO("Sending batch of %d pcap events to MP", static_cast<int>(batch.added()));
  batch.Send();
}

void PcapSenders::SendKafkaBatch() {
  PcapQueue& queue = intake_.kafka_pcaps();
  const uint32_t count = queue.count();
  if (count == 0) return;
  const zem::LoopStep step("captures to Kafka");
  ZLOG_INFO("Ids: numEvents: %d", static_cast<int>(count));
  Batch batch(*this, &kafka_, false);
  std::vector<std::unique_ptr<IdsEvent>> notices;
  const auto go_on = [this, &notices] {
    for (auto& notice : notices) intake_.AddPcap(std::move(notice));
  };
  try {
    while (notices.size() < count && !interruption_.stopped()) {
      auto notice = queue.Pop();
      if (notice == nullptr) break;
      notices.push_back(std::move(notice));
      if (batch.added() < param_.maxPcapsPerProto) batch.Add(*notices.back());
    }
  } catch (...) {
    go_on();
    throw;
  }
  ZLOG_INFO("Total pcaps: %d", static_cast<int>(batch.added()));
  // Only now: the manager's sender removes the files.
  go_on();
  ZLOG_INFO("Sending batch of %d pcap events to Kafka", static_cast<int>(batch.added()));
  batch.Send();
}

}  // namespace IdsEvtEng
