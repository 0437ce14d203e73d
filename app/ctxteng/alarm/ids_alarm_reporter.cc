#include "app/ctxteng/alarm/ids_alarm_reporter.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "app/ctxteng/alarm/entity_id.h"
#include "app/ctxteng/alarm/host_command.h"
#include "app/ctxteng/alarm/json_text.h"
#include "framework/log/log.h"

namespace IdsPollAlarm {
namespace {

using zem::monitoring::EventSourceAPI;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr const char* kName = "ctxteng_ids_poll";
constexpr uint16_t kFeature = 33;
constexpr const char* kEntity = "00000000-0000-0000-0000-000000000001";
constexpr size_t kHostnameSize = 128;
// The captures' partition holds 32 MiB, and the file system takes its part.
constexpr int64_t kFullKib = 31936;

}  // namespace

struct IdsAlarmReporter::Kind {
  uint16_t event_type;
  const char* disabled;
  bool (IdsAlarmReporter::*raised)() const;
  const char* changed;
};

constexpr std::array<IdsAlarmReporter::Kind, 3> IdsAlarmReporter::kKinds = {
    Kind{55, "IdsAlarmReporter: Network oversub bypassed alarm is disabled, skip reporting.",
         &IdsAlarmReporter::Bypassed,
         "IdsAlarmReporter: Successful to %s ids network oversub bypass alarm for %s entityId %s host."},
    Kind{63, "IdsAlarmReporter: Network oversub dropped alarm is disabled, skip reporting.",
         &IdsAlarmReporter::Dropped,
         "IdsAlarmReporter: Successful to %s ids network oversub drop alarm for %s entityId %s host."},
    Kind{77, "IdsAlarmReporter: host pcap partition alarm is disabled, skip reporting.",
         &IdsAlarmReporter::DirectoryFull,
         "IdsAlarmReporter: Successful to %s ids pcap partition full alarm for %s entityId %s host."},
};

IdsAlarmReporter::IdsAlarmReporter(PollConditions conditions)
    : conditions_(std::move(conditions)), interrupt_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (interrupt_.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

IdsAlarmReporter::~IdsAlarmReporter() { Shutdown(); }

void IdsAlarmReporter::Initialize() {
  // What a shutdown before this start has left would end each look at the folder at once.
  eventfd_t ignored = 0;
  static_cast<void>(::eventfd_read(interrupt_.get(), &ignored));
  raised_ = {};
  char hostname[kHostnameSize] = {};
  // A name that fills the field has no end.
  if (::gethostname(hostname, sizeof(hostname)) == 0 && hostname[sizeof(hostname) - 1] == '\0') {
    hostname_ = hostname;
  } else {
    ZLOG_CTX_ERROR(701, "IdsAlarmReporter: failed to get hostname");
  }
  EventSourceHandle handle = nullptr;
  if (EventSourceAPI::CreateEx(kName, kFeature, &handle) != kEventSourceOk) {
    ZLOG_CTX_ERROR(701, "IdsAlarmReporter: Failed to create alarm event source.");
    return;
  }
  std::vector<uint16_t> types;
  for (const Kind& kind : kKinds) types.push_back(kind.event_type);
  const char* failed = nullptr;
  if (EventSourceAPI::SetConfigCallback(handle, [this](const auto& configs) { OnConfig(configs); }) !=
      kEventSourceOk) {
    failed = "IdsAlarmReporter: Failed to register ids alarm callback.";
  } else if (EventSourceAPI::SetPollCallback(handle, types,
                                             [this](const uint16_t* event_types, size_t count) {
                                               OnPoll(event_types, count);
                                             }) != kEventSourceOk) {
    failed = "IdsAlarmReporter: Failed to register ids alarm polling callback.";
  }
  // Set before the start, because the callbacks report through it.
  handle_ = handle;
  if (failed == nullptr && EventSource_Start(handle) != kEventSourceOk) {
    failed = "IdsAlarmReporter: Failed to start ids alarm client";
  }
  if (failed != nullptr) {
    ZLOG_CTX_ERROR(701, "%s", failed);
    return Shutdown();
  }
  ZLOG_INFO("IdsAlarmReporter: initialized successfully.");
}

void IdsAlarmReporter::Shutdown() {
  static_cast<void>(::eventfd_write(interrupt_.get(), 1));
  EventSource_Destroy(handle_);
  handle_ = nullptr;
}

void IdsAlarmReporter::OnConfig(const std::vector<EventSourceConfig>& configs) {
  const std::lock_guard lock(mutex_);
  for (const EventSourceConfig& config : configs) disabled_[config.event_type_id] = config.is_disabled;
}

bool IdsAlarmReporter::Disabled(uint16_t event_type) {
  const std::lock_guard lock(mutex_);
  const auto found = disabled_.find(event_type);
  return found != disabled_.end() && found->second;
}

void IdsAlarmReporter::OnPoll(const uint16_t* event_types, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const auto kind =
        std::ranges::find(kKinds, event_types[i], [](const Kind& each) { return each.event_type; });
    if (kind == kKinds.end()) {
      ZLOG_WARN("IdsAlarmReporter: Unknown event type ID %d alarm processed", event_types[i]);
      continue;
    }
    if (Disabled(kind->event_type)) {
      ZLOG_INFO("%s", kind->disabled);
      continue;
    }
    Report(*kind, conditions_.enabled() && (this->*kind->raised)());
  }
}

bool IdsAlarmReporter::DirectoryFull() const {
  const std::string command =
      "du -k " + Ctxt::ShellWord(conditions_.pcap_dir_path) + " | head -1 | awk '{ print $1}'";
  std::string output;
  // Its failure is logged there, and leaves the output empty.
  static_cast<void>(Ctxt::RunHostCommand(command, interrupt_.get(), &output));
  ZLOG_DEBUG("IdsAlarmReporter: IDPS check pcap dir executedCmd len: %lu, output %s", output.size(),
             output.c_str());
  const std::vector<std::string> fields = Ctxt::Fields(output);
  if (fields.empty()) {
    ZLOG_INFO("IdsAlarmReporter: IDPS check pcap dir executedCmd output is empty");
    return false;
  }
  if (fields.size() != 1) {
    ZLOG_CTX_ERROR(775, "IdsAlarmReporter: Unexpected return size %lu from get pcap dir cmdOutput [%s]",
                   fields.size(), output.c_str());
    return false;
  }
  try {
    const auto size = boost::lexical_cast<int64_t>(fields[0]);
    if (size > kFullKib) {
      ZLOG_CTX_ERROR(775, "IdsAlarmReporter: pcap directory is full, size: %d", static_cast<int>(size));
      return true;
    }
    ZLOG_DEBUG("IdsAlarmReporter: pcap directory cur size: %d", static_cast<int>(size));
  } catch (const boost::bad_lexical_cast& error) {
    ZLOG_CTX_ERROR(1301, "IdsAlarmReporter: Exception while casting cmdOutput: [%s] to pcap dir size: %s",
                   output.c_str(), error.what());
  }
  return false;
}

void IdsAlarmReporter::Report(const Kind& kind, bool raised) {
  if (handle_ == nullptr) {
    ZLOG_CTX_ERROR(778, "IdsAlarmReporter: No event source created for alarm.");
    return;
  }
  const char* const verb = raised ? "raise" : "clear";
  // Its blanks are part of the form that the manager knows.
  const std::string context =
      Ctxt::SpacedJsonText({{"entity_id", kEntity}, {"transport_node_name", hostname_}});
  const int status = EventSourceAPI::SetEventInstanceSample(handle_, kind.event_type,
                                                            *Ctxt::ParseEntityId(kEntity), raised, context);
  if (status != kEventSourceOk) {
    ZLOG_CTX_ERROR(778, "IdsAlarmReporter: Failed to %s ids alarm: %d for %s entityId %s host.", verb,
                   kind.event_type, kEntity, hostname_.c_str());
    return;
  }
  bool& before = raised_[static_cast<size_t>(&kind - kKinds.data())];
  if (std::exchange(before, raised) == raised) return;
  ZLOG_INFO(kind.changed, verb, kEntity, hostname_.c_str());
}

}  // namespace IdsPollAlarm
