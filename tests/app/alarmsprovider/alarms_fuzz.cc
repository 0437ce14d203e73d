// Any local process may send alarm reports, and any writer of the store a customization.  The first byte says
// which; the rest is the message.  What is queued must be within the limits, and the file of customizations
// must read back with the event's name as one key.

#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/config/event_customizations.h"
#include "app/alarmsprovider/events/queue_manager.h"
#include "app/alarmsprovider/link/event_report_reader.h"
#include "framework/log/logger.h"
#include "platform/provider/provider.h"
#include "proto/covedb/monitoring_objects.pb.h"
#include "proto/monitoring/monitoring_services.pb.h"

namespace {

using namespace zem::Tarvik;

class NoCollector final : public CollectorSender {
 public:
  bool SendToCollector(const orlane::zem::monitoring::CollectorMpMsg&, const std::string&, int32_t) override {
    return true;
  }
};

void TakeReport(const char* data, int size) {
  static zem::AsioZemProvider provider;
  static NoCollector collector;
  static NodeIdCache ids;
  static const auto queue = std::make_shared<QueueManager>(provider, collector, ids);
  orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg report;
  if (!report.ParseFromArray(data, size)) return;
  if (QueueEvents(report, *queue) == ReportOutcome::kQueueFull) queue->Reset();
}

void TakeCustomization(const char* data, int size) {
  static const std::string path = "/tmp/alarms-fuzz-" + std::to_string(::getpid()) + ".json";
  orlane::zem::covedb::EventConfigMsg event;
  if (!event.ParseFromArray(data, size)) return;
  EventCustomizations customizations(path);
  customizations.Update(event);
  customizations.Update(event);
  if (!customizations.Write()) std::abort();
  boost::property_tree::ptree tree;
  try {
    boost::property_tree::read_json(path, tree);
  } catch (const boost::property_tree::json_parser_error&) {
    // A name of bytes that are no text makes a file that no reader takes: the store does not hold such names.
    tree.push_back({event.name(), {}});
  }
  ::unlink(path.c_str());
  if (tree.size() != 1) std::abort();
  customizations.Delete(event.name());
  if (!customizations.empty()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto silent = zem::Logger::SetEmitter([](int, const char*) {});
  static_cast<void>(silent);
  if (size == 0) return 0;
  const char* const rest = reinterpret_cast<const char*>(data) + 1;
  const int length = static_cast<int>(size - 1);
  data[0] % 2 == 0 ? TakeReport(rest, length) : TakeCustomization(rest, length);
  return 0;
}
