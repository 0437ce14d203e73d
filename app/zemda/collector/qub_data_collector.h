#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/zemda/base/data_collector.h"
#include "app/zemda/collector/da_lum_proxy.h"
#include "app/zemda/collector/vif_state.h"
#include "app/zemda/inventory/host_records.h"
#include "app/zemda/inventory/qub_inventory_parser.h"

namespace orlane::zem::ida {
class InventoryObjectMsg;
}

namespace ZemDa {

/// Reports the hypervisor host: everything at first and on request, then each change.
class QubDataCollector final : public DataCollector {
 public:
  struct Sources {
    std::string socket = "/etc/orlane/QubDiscoveryAgent";
    std::string capabilities = "/etc/orlane/networking/capability/";
    std::shared_ptr<CoveDBConnectionHandler> store;
  };

  QubDataCollector(std::shared_ptr<DcQueue> queue, Sources sources);
  ~QubDataCollector() override;

  void operator()() override;

 private:
  using Reply = std::vector<ReplyLine>;

  Reply Begin();
  bool Step(Reply* reply);
  void ParseAndPush(const Reply& reply);
  void Push(orlane::zem::ida::InventoryObjectMsg object, int type);
  void TakeVm(const std::string& update_type, const QubVM& vm);
  void TakeHost(const std::string& update_type, const QubHost& host);

  const std::shared_ptr<DcQueue> queue_;
  DaLumProxy proxy_;
  QubInventoryParser parser_;
  HostRecords host_;
  VifState vifs_;
  bool first_ = false;    // the next record of a full sync is its first
  bool refused_ = false;  // a record of this pass has found no place
  bool pushes_ = true;    // false: a reply is taken for the store alone
};

}  // namespace ZemDa
