#pragma once

#include <memory>

// librdkafka's own names, so that its header stays out of ours.
struct rd_kafka_conf_s;

namespace Ctxt {
struct KafkaConfig;
}

namespace Ctxt::PaceClient {

struct KafkaSettingsDelete {
  void operator()(rd_kafka_conf_s* settings) const;
};
using KafkaSettings = std::unique_ptr<rd_kafka_conf_s, KafkaSettingsDelete>;

/// The library's settings for a producer with `config`: TLS with the files of the trust store.  Null, with
/// the reason logged, when `config` is incomplete or the library refuses a value.
KafkaSettings MakeKafkaSettings(const KafkaConfig& config);

/// What the library, which has a clock of its own, has to be told for `ms` of the process's clock.
int LibraryMs(int ms);

}  // namespace Ctxt::PaceClient
