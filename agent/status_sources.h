#pragma once

#include <memory>
#include <vector>

#include "framework/status/part_state.h"
#include "platform/metrics/queue_gauge.h"

namespace zem {
class TnProxyClientCommon;
}
namespace zem::covedb {
class CoveDbClient;
}

namespace zem::Tarvik {

class LcpAdapter;

// The states of the agent's links that belong to no application, for the operators' status.

/// The queue of the store client's writes.
QueueGauge::Reading StoreWrites();

/// "manager": the local proxy and the manager-side proxies behind it; "verticals": those whose road is down.
void DescribeManager(const TnProxyClientCommon& proxy, std::vector<PartState>* parts);
/// "dataplane link".
void DescribeDataplane(const LcpAdapter& adapter, std::vector<PartState>* parts);
/// "store".  `client` may be null on a node without one.
void DescribeStore(const covedb::CoveDbClient* client, std::vector<PartState>* parts);

}  // namespace zem::Tarvik
