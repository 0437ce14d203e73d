#pragma once

namespace Ctxt {

struct KafkaConfig;

/// The certificate files of Kafka brokers and who uses them.  All users in the process share one file per
/// trust store.
///
/// Threads: all operations from any thread; they wait for the disk.
class BrokerCertFiles {
 public:
  /// Writes `config.certificate` to its file, which `user` uses from now on instead of the one before.
  /// Without a certificate, or without a trust store, nothing is written.
  static void Save(const void* user, const KafkaConfig& config);
  /// Removes the file of `user` unless another one uses it.
  static void LetGo(const void* user);
};

}  // namespace Ctxt
