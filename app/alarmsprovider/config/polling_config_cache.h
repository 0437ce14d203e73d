#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace orlane::zem::covedb {
class DataCollectionConfigMsg;
class UserDefinedFeatureStackCollectionConfigurationMsg;
}  // namespace orlane::zem::covedb

namespace zem::Tarvik {

/// Seconds between two collections, by the name of the feature stack.
using PollingTable = std::map<std::string, uint32_t>;

/// How often the status source has to collect, as far as it concerns this kind of node.
///
/// Threads: all operations from any thread.
class PollingConfigCache {
 public:
  /// The kinds of nodes for which polling is configured.
  enum ClientType : uint32_t { kHost = 1, kEdge = 4, kOther = 6 };
  /// The kind of the node that the process runs on.
  static ClientType ClientTypeOfNode();

  explicit PollingConfigCache(ClientType client_type);

  // These return true when the configuration has changed.
  [[nodiscard]] bool Update(const orlane::zem::covedb::DataCollectionConfigMsg& config);
  [[nodiscard]] bool Update(
      const orlane::zem::covedb::UserDefinedFeatureStackCollectionConfigurationMsg& config);
  [[nodiscard]] bool SetCollectionEnabled(bool enabled);

  PollingTable table() const;
  /// True until the store says otherwise.
  bool collection_enabled() const;

 private:
  bool IsForThisNode(const std::string& client_type) const;
  /// A default does not replace an interval that exists.
  bool Set(const std::string& name, uint32_t interval, bool is_default);

  const ClientType client_type_;
  mutable std::mutex mutex_;  // guards what follows
  bool collection_enabled_ = true;
  PollingTable table_;
};

}  // namespace zem::Tarvik
