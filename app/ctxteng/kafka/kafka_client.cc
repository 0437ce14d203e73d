#include "app/ctxteng/kafka/kafka_client.h"

#include <google/protobuf/message_lite.h>
#include <librdkafka/rdkafka.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "app/ctxteng/kafka/broker_states.h"
#include "app/ctxteng/kafka/kafka_config.h"
#include "app/ctxteng/kafka/kafka_settings.h"
#include "framework/log/log.h"
#include "framework/process/error_text.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/poll.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr size_t kErrorSize = 512;
constexpr int kPurgeMs = 1000;
constexpr uint64_t kWake = 1;

// One row per topic, in the order in which they are made.
struct TopicTexts {
  std::string KafkaConfig::*name;
  const char* empty;
  const char* failure;
  const char* cannot_send;
  const char* sending;
};
constexpr std::array kTopicTexts = {
    TopicTexts{&KafkaConfig::context_topic, "Zemi: Empty Context topic, not creating topic object",
               "Zemi: Failed to create kafka context topic object, error: %s",
               "Zemi: Empty Context kafka topic object, cannot send msg",
               "Zemi: Sending context msg over kafka channel %s"},
    TopicTexts{&KafkaConfig::metrics_topic, "Zemi: Empty Context Metrics topic, not creating topic object",
               "Failed to create kafka metrics topic object, error: %s", nullptr, nullptr},
    TopicTexts{&KafkaConfig::event_topic, "Zemi: Empty Ids event topic, not creating topic object",
               "Failed to create kafka event topic object, error: %s",
               "Zemi: Empty event kafka topic object, cannot send msg",
               "Zemi: Sending event msg over kafka channel %s"},
    TopicTexts{&KafkaConfig::pcap_topic, "Zemi: Empty Ids pcap topic, not creating topic object",
               "Failed to create kafka pcap topic object, error: %s",
               "Zemi: Empty pcap kafka topic object, cannot send msg",
               "Zemi: Sending pcap over kafka channel %s"},
};

// -187 is not here, since it is an error line and moves the alarm.
struct ErrorText {
  int code;
  const char* text;
};
constexpr std::array kErrorTexts = {
    ErrorText{RD_KAFKA_RESP_ERR_BROKER_NOT_AVAILABLE, "Zemi: Kafka broker not available."},
    ErrorText{RD_KAFKA_RESP_ERR_TOPIC_EXCEPTION, "Zemi: Kafka topic error."},
    ErrorText{RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED, "Zemi: Kafka topic error."},
    ErrorText{RD_KAFKA_RESP_ERR_UNACCEPTABLE_CREDENTIAL, "Zemi: Kafka unacceptable credential."},
    ErrorText{RD_KAFKA_RESP_ERR__TRANSPORT, "Zemi: Kafka transport failure."},
    ErrorText{RD_KAFKA_RESP_ERR__SSL, "Zemi: Kafka broker SSL failure."},
    ErrorText{RD_KAFKA_RESP_ERR__AUTHENTICATION, "Zemi: Kafka Authentication failure."},
};
static_assert(RD_KAFKA_RESP_ERR_BROKER_NOT_AVAILABLE == 8 && RD_KAFKA_RESP_ERR_TOPIC_EXCEPTION == 17 &&
              RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED == 29 &&
              RD_KAFKA_RESP_ERR_UNACCEPTABLE_CREDENTIAL == 93 && RD_KAFKA_RESP_ERR__TRANSPORT == -195 &&
              RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN == -187 && RD_KAFKA_RESP_ERR__SSL == -181 &&
              RD_KAFKA_RESP_ERR__AUTHENTICATION == -169);

struct QueueDelete {
  void operator()(rd_kafka_queue_t* queue) const { rd_kafka_queue_destroy(queue); }
};

struct AllClients {
  std::mutex mutex;  // guards clients
  std::vector<const KafkaClient*> clients;
};

AllClients& All() {
  static AllClients& all = *new AllClients();  // clients may end after the process's statics
  return all;
}

}  // namespace

// The library's entry points.
struct KafkaClient::Callbacks {
  static void Delivery(rd_kafka_t*, const rd_kafka_message_t* message, void* client) {
    static_cast<KafkaClient*>(client)->TakeDelivery(*message);
  }
  static int Statistics(rd_kafka_t*, char* json, size_t length, void* client) {
    static_cast<KafkaClient*>(client)->TakeStatistics(json, length);
    return 0;  // the library frees the text
  }
  static void Error(rd_kafka_t* producer, int code, const char*, void* client) {
    if (producer == nullptr) {
      ZLOG_WARN("Zemi: empty rk handle");
      return;
    }
    static_cast<KafkaClient*>(client)->TakeError(code);
  }
};

KafkaClient::KafkaClient(const KafkaConfig& config, KafkaAlarm* alarm, KafkaDeliveries& deliveries)
    : brokers_(config.brokers), alarm_(alarm), deliveries_(deliveries) {
  {
    const std::lock_guard lock(All().mutex);
    All().clients.push_back(this);
  }
  if (!MakeProducer(config)) return;
  if (!MakeTopics(config)) {
    DestroyProducer();
    return;
  }
  ready_ = true;
  try {
    StartPolling();
  } catch (const std::exception& error) {
    ready_ = false;
    ZLOG_CTX_ERROR(661, "Failed to create kafka producer, error: %s", error.what());
    DestroyProducer();
  }
}

std::vector<KafkaClient::Reading> KafkaClient::ReadAll() {
  std::vector<Reading> readings;
  const std::lock_guard lock(All().mutex);
  for (const KafkaClient* const client : All().clients)
    readings.push_back({client->brokers_, client->brokers_down_});
  return readings;
}

KafkaClient::~KafkaClient() {
  {
    const std::lock_guard lock(All().mutex);
    std::erase(All().clients, this);
  }
  StopPolling();
  // Not behind the flush: a client that replaces this one may raise the alarm of the same brokers meanwhile.
  if (alarm_raised_.exchange(false)) alarm_->Clear(this, brokers_);
  if (producer_ != nullptr) {
    ZLOG_INFO("Zemi: Flushing final messages over kafka");
    if (rd_kafka_flush(producer_, LibraryMs(static_cast<int>(flush_seconds_ * 1000))) !=
        RD_KAFKA_RESP_ERR_NO_ERROR) {
      // What is given up now is reported as failed, so that no message goes uncounted.
      rd_kafka_purge(producer_, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
      rd_kafka_flush(producer_, kPurgeMs);
    }
    DestroyProducer();
  }
}

bool KafkaClient::MakeProducer(const KafkaConfig& config) {
  KafkaSettings settings = MakeKafkaSettings(config);
  if (!settings) return false;
  rd_kafka_conf_set_opaque(settings.get(), this);
  ZLOG_INFO("Zemi: Successfully set kafka config");
  rd_kafka_conf_set_dr_msg_cb(settings.get(), &Callbacks::Delivery);
  rd_kafka_conf_set_stats_cb(settings.get(), &Callbacks::Statistics);
  rd_kafka_conf_set_error_cb(settings.get(), &Callbacks::Error);
  char error[kErrorSize] = "";
  producer_ = rd_kafka_new(RD_KAFKA_PRODUCER, settings.get(), error, sizeof(error));
  if (producer_ == nullptr) {
    ZLOG_CTX_ERROR(661, "Failed to create kafka producer, error: %s", error);
    return false;
  }
  static_cast<void>(settings.release());  // the producer's now
  ZLOG_INFO("Zemi: Successfully created kafka producer");
  return true;
}

bool KafkaClient::MakeTopics(const KafkaConfig& config) {
  for (size_t topic = 0; topic < kTopics; ++topic) {
    const TopicTexts& texts = kTopicTexts[topic];
    const std::string& name = config.*texts.name;
    if (name.empty()) {
      ZLOG_INFO("%s", texts.empty);
      continue;
    }
    topics_[topic] = rd_kafka_topic_new(producer_, name.c_str(), nullptr);
    if (topics_[topic] == nullptr) {
      ZLOG_CTX_ERROR(662, texts.failure, rd_kafka_err2str(rd_kafka_last_error()));
      return false;
    }
    ZLOG_INFO("Zemi: Successfully created kafka topic: %s", name.c_str());
  }
  return true;
}

void KafkaClient::DestroyProducer() {
  for (rd_kafka_topic_t*& topic : topics_) {
    if (topic != nullptr) rd_kafka_topic_destroy(topic);
    topic = nullptr;
  }
  rd_kafka_destroy(producer_);
  producer_ = nullptr;
}

void KafkaClient::SendContext(const google::protobuf::MessageLite& msg) { SendTo(kContext, msg); }
void KafkaClient::SendEvent(const google::protobuf::MessageLite& msg) { SendTo(kEvent, msg); }
void KafkaClient::SendPcap(const google::protobuf::MessageLite& msg) { SendTo(kPcap, msg); }

void KafkaClient::SendTo(Topic topic, const google::protobuf::MessageLite& msg) {
  const TopicTexts& texts = kTopicTexts[topic];
  rd_kafka_topic_t* const handle = topics_[topic];
  if (handle == nullptr) {
    ZLOG_WARN("%s", texts.cannot_send);
    return;
  }
  const char* const name = rd_kafka_topic_name(handle);
  ZLOG_DEBUG(texts.sending, name);
  const size_t size = msg.ByteSizeLong();
  const auto buffer = std::make_unique_for_overwrite<char[]>(size);
  if (!msg.SerializeToArray(buffer.get(), static_cast<int>(size))) {
    ZLOG_CTX_ERROR(152, "Zemi: Failed to serialize msg");
    return;
  }
  // Counted before: the report may come before the call returns.
  ++produced_;
  if (rd_kafka_produce(handle, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, buffer.get(), size, nullptr, 0,
                       nullptr) == -1) {
    const rd_kafka_resp_err_t error = rd_kafka_last_error();
    --produced_;
    ZLOG_CTX_ERROR(663, "Zemi: Failed to send message to kafka topic %s: error %s", name,
                   rd_kafka_err2str(error));
  } else {
    ZLOG_DEBUG("Zemi: Successfully sent msg over kafka over topic: %s", name);
  }
  rd_kafka_poll(producer_, 0);
  // The alarm is for the client's own thread, which may have found the queue empty while this one ran the
  // report.
  if (alarm_unsettled_) Wake();
}

void KafkaClient::StartPolling() {
  wake_.Reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
  const std::unique_ptr<rd_kafka_queue_t, QueueDelete> queue(rd_kafka_queue_get_main(producer_));
  rd_kafka_queue_io_event_enable(queue.get(), wake_.get(), &kWake, sizeof(kWake));
  zem::NativeThread::Options options;
  options.name = "ctxt:kafkaPoll";
  poller_ = zem::NativeThread(std::move(options), [this] { Poll(); });
}

// Runs on a thread of the client's own, which also carries the alarm's calls.
void KafkaClient::Poll() {
  const zem::LoopThread loop("ctxt:kafkaPoll", zem::LoopKind::kWorker);
  while (!stopping_) {
    // The library wakes this thread when its queue stops being empty.  So the queue is emptied before each
    // wait, the first one as well: reports may have come before the library knew whom to wake.
    {
      const zem::LoopStep step("reports");
      while (!stopping_ && rd_kafka_poll(producer_, 0) > 0) {
      }
      SettleAlarm();
    }
    pollfd wake{wake_.get(), POLLIN, 0};
    zem::PollIdle(&wake, 1, -1);
    uint64_t count = 0;
    if (::read(wake_.get(), &count, sizeof(count)) < 0 && errno != EAGAIN && errno != EINTR) {
      ZLOG_WARN("Zemi: The Kafka client polls no more: %s", zem::Tarvik::Util::GetErrMsg(errno).c_str());
      return;
    }
  }
}

void KafkaClient::StopPolling() {
  if (!poller_.joinable()) return;
  stopping_ = true;
  Wake();
  poller_.Join();
}

void KafkaClient::Wake() {
  if (::write(wake_.get(), &kWake, sizeof(kWake)) < 0) {
    // A full counter wakes the thread as well.
    ZLOG_TRACE("Zemi: the Kafka client's thread is awake already");
  }
}

void KafkaClient::TakeDelivery(const rd_kafka_message_t& message) {
  ++reported_;
  if (message.err != RD_KAFKA_RESP_ERR_NO_ERROR) {
    ++deliveries_.failed;
    ZLOG_CTX_ERROR(663, "Zemi: Kafka message delivery failed, error: %s, offset: %ld",
                   rd_kafka_err2str(message.err), message.offset);
    return;
  }
  ++deliveries_.succeeded;
  ZLOG_DEBUG("Zemi: Kafka message delivered (%zu bytes, partition %d), offset: %ld", message.len,
             message.partition, message.offset);
}

void KafkaClient::TakeStatistics(const char* json, size_t length) {
  ZLOG_DEBUG("Zemi: Kafka stats: %.*s", static_cast<int>(length), json);
  const BrokerStates states = ReadBrokerStates(std::string_view(json, length));
  ZLOG_INFO("Zemi: Kafka state: %s", states.first.c_str());
  // The first broker may be one that the client needs no connection to, which never comes up.  So brokers
  // that take messages count as well: one is up, and all that waited at the last report is through.
  const bool through = reported_ >= produced_last_period_;
  produced_last_period_ = produced_.load();
  if (states.first == "UP" || (states.any_up && through)) brokers_down_ = false;
  alarm_unsettled_ = true;
}

void KafkaClient::TakeError(int code) {
  if (code == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN) {
    ZLOG_CTX_ERROR(667, "Zemi: Kafka broker(s) are down.");
    brokers_down_ = true;
    alarm_unsettled_ = true;
    return;
  }
  for (const ErrorText& row : kErrorTexts) {
    if (row.code != code) continue;
    ZLOG_WARN("%s", row.text);
    return;
  }
  ZLOG_WARN("Zemi: Kafka generic error with  error code %d.", code);
}

void KafkaClient::SettleAlarm() {
  if (!alarm_unsettled_.exchange(false) || alarm_ == nullptr) return;
  const std::lock_guard lock(alarm_mutex_);
  const bool down = brokers_down_;
  if (down) {
    if (!alarm_raised_ || !alarm_->Stands(this)) alarm_raised_ = alarm_->Raise(this, brokers_);
    return;
  }
  if (!alarm_raised_) return;
  ZLOG_INFO("Zemi: Kafka transmission alarm cleared");
  alarm_raised_ = false;
  alarm_->Clear(this, brokers_);
}

void KafkaClient::ClearAlarm() {
  if (alarm_ == nullptr) return;
  const std::lock_guard lock(alarm_mutex_);
  alarm_raised_ = false;
  alarm_->Clear(this, brokers_);
}

}  // namespace Ctxt::PaceClient
