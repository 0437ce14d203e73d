#include "app/ctxteng/idsrecord/event_reader.h"

#include <array>
#include <span>
#include <utility>
#include <variant>

#include "app/ctxteng/idsrecord/json_line.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

struct Word {
  std::string_view text;
  uint32_t number;
};
constexpr std::array kSessionDirs = {Word{"source", 1}, Word{"destination", 2}};
constexpr std::array kEventDirs = {Word{"ingress", 1}, Word{"egress", 2}, Word{"both", 3}};
constexpr std::array kDirections = {Word{"to_client", kToClient}, Word{"to_server", kToServer}};
constexpr std::array kFlips = {Word{"true", kFlipYes}};
constexpr std::array kActions = {Word{"allowed", 0}, Word{"drop", 1}, Word{"reject", 2}};

// A word that stands for a number, and the number of any other word.
struct Choice {
  uint32_t IdsEvent::*field;
  std::span<const Word> words;
  uint32_t other;
};

using Target = std::variant<std::string IdsEvent::*, uint32_t IdsEvent::*, uint64_t IdsEvent::*,
                            int32_t IdsEvent::*, Choice>;

constexpr uint8_t kInAlert = 1;
constexpr uint8_t kInCapture = 2;
constexpr uint8_t kInBoth = kInAlert | kInCapture;

struct Field {
  Member member;
  uint8_t kinds;
  const char* noun;  // in log lines
  Target target;
};
constexpr std::array kFields = {
    Field{Member::kSrcIp, kInBoth, "src IP", &IdsEvent::src_ip},
    Field{Member::kDestIp, kInBoth, "dest IP", &IdsEvent::dest_ip},
    Field{Member::kSrcPort, kInBoth, "src port", &IdsEvent::src_port},
    Field{Member::kDestPort, kInBoth, "dest port", &IdsEvent::dest_port},
    Field{Member::kProto, kInBoth, "protocol", &IdsEvent::proto},
    Field{Member::kAppProto, kInBoth, "app protocol", &IdsEvent::app_proto},
    Field{Member::kFlowId, kInBoth, "flow id", &IdsEvent::flow_id},
    Field{Member::kSignatureId, kInAlert, "signature id", &IdsEvent::signature_id},
    Field{Member::kSignature, kInAlert, "signature", &IdsEvent::signature},
    Field{Member::kTimestamp, kInAlert, "timestamp", &IdsEvent::timestamp},
    Field{Member::kSeverity, kInAlert, "severity", &IdsEvent::severity},
    Field{Member::kSessionDir, kInAlert, "session dir", Choice{&IdsEvent::session_dir, kSessionDirs, 0}},
    Field{Member::kEventDir, kInAlert, "event dir", Choice{&IdsEvent::event_dir, kEventDirs, 0}},
    Field{Member::kTargetIp, kInAlert, "target IP", &IdsEvent::target_ip},
    Field{Member::kTargetPort, kInAlert, "target port", &IdsEvent::target_port},
    Field{Member::kDirection, kInAlert, "direction", Choice{&IdsEvent::direction, kDirections, 0}},
    Field{Member::kFlipEndpoints, kInAlert, "flip endpoints",
          Choice{&IdsEvent::flip_endpoints, kFlips, kFlipNo}},
    Field{Member::kFlowSrcIp, kInAlert, "flow src IP", &IdsEvent::flow_src_ip},
    Field{Member::kFlowDestIp, kInAlert, "flow dest IP", &IdsEvent::flow_dest_ip},
    Field{Member::kFlowDir, kInBoth, "flow dir", &IdsEvent::flow_dir},
    Field{Member::kAction, kInAlert, "effective action", Choice{&IdsEvent::action, kActions, kActionNotSet}},
    Field{Member::kUserId, kInBoth, "user id", &IdsEvent::user_id},
    Field{Member::kRuleId, kInBoth, "rule id", &IdsEvent::rule_id},
    Field{Member::kProfileId, kInBoth, "profile id", &IdsEvent::profile_id},
    Field{Member::kVnicId, kInAlert, "vnic id", &IdsEvent::vnic_id},
    Field{Member::kVmUuid, kInBoth, "vm uuid", &IdsEvent::vm_uuid},
    Field{Member::kLspUuid, kInAlert, "lsp uuid", &IdsEvent::lsp_uuid},
    Field{Member::kBytesToServer, kInBoth, "bytes to server", &IdsEvent::bytes_to_server},
    Field{Member::kBytesToClient, kInBoth, "bytes to client", &IdsEvent::bytes_to_client},
    Field{Member::kSnipTsUs, kInAlert, "snip timestamp", &IdsEvent::snip_ts_us},
    Field{Member::kFlowSnipTsUs, kInCapture, "flow snip timestamp", &IdsEvent::snip_ts_us},
    Field{Member::kHttpHostname, kInAlert, "http hostname", &IdsEvent::http_hostname},
    Field{Member::kHttpPort, kInAlert, "http port", &IdsEvent::http_port},
    Field{Member::kHttpUrl, kInAlert, "http url", &IdsEvent::http_url},
    Field{Member::kDetectorId, kInAlert, "detector id", &IdsEvent::detector_id},
    Field{Member::kIdsMode, kInAlert, "ids mode", &IdsEvent::ids_mode},
};

// A lean alert lacks most of the fields, so each field says so once in a while.
std::array<LineBudget, kFields.size()> g_missing;
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_wrong_addresses{kLinesOfAKind};
LineBudget g_wrong_flow_dirs{kLinesOfAKind};
LineBudget g_wrong_actions{kLinesOfAKind};
LineBudget g_wrong_lines{kLinesOfAKind};

void LogWrongAction(const std::string& word) {
  if (g_wrong_actions.Allows()) ZLOG_WARN("Invalid effective flow action received: %s", word.c_str());
}

bool Take(const JsonLine& line, Member member, const Choice& choice, IdsEvent* event) {
  const auto word = line.Text(member);
  if (!word) return false;
  event->*choice.field = choice.other;
  for (const Word& row : choice.words) {
    if (row.text != *word) continue;
    event->*choice.field = row.number;
    return true;
  }
  if (member == Member::kAction) LogWrongAction(*word);
  return true;
}

bool Take(const JsonLine& line, Member member, std::string IdsEvent::*field, IdsEvent* event) {
  auto text = line.Text(member);
  if (text) event->*field = std::move(*text);
  return text.has_value();
}

template <class Number>
bool Take(const JsonLine& line, Member member, Number IdsEvent::*field, IdsEvent* event) {
  const auto number = line.As<Number>(member);
  if (number) event->*field = *number;
  return number.has_value();
}

std::string WhyNot(const JsonLine& line, Member member) {
  const std::string path = PathOf(member);
  if (!line.Has(member)) return "no such member (" + path + ")";
  constexpr size_t kMostShown = 64;
  return "wrong value of " + path + " (" + std::string(line.At(member).substr(0, kMostShown)) + ")";
}

std::unique_ptr<IdsEvent> Read(const JsonLine& line, EventType type) {
  auto event = std::make_unique<IdsEvent>();
  event->event_type = type;
  const uint8_t kind = type == kAlertEvent ? kInAlert : kInCapture;
  const zem::TimePoint now = zem::Clock::Process().Now();
  for (size_t i = 0; i < kFields.size(); ++i) {
    const Field& field = kFields[i];
    if ((field.kinds & kind) == 0) continue;
    const bool taken = std::visit(
        [&](const auto& target) { return Take(line, field.member, target, event.get()); }, field.target);
    if (taken || !g_missing[i].Allows(now)) continue;
    ZLOG_CTX_ERROR(729, "Exception while retrieving %s from JSON, %s", field.noun,
                   WhyNot(line, field.member).c_str());
  }
  if (event->flow_dir != 1 && event->flow_dir != 2 && g_wrong_flow_dirs.Allows(now))
    ZLOG_CTX_ERROR(731, "Invalid flow dir received: %d", static_cast<int>(event->flow_dir));
  return event;
}

uint32_t MatchOf(const IdsEvent& event) {
  if (event.src_ip == event.flow_src_ip) return kSourceMatches;
  return event.src_ip == event.flow_dest_ip ? kDestinationMatches : kNoMatch;
}

constexpr const char* kReader = "ConvertJsonGetEventType";

}  // namespace

EventType ReadEventType(std::string_view text, JsonLine* line) {
  if (text.empty()) {
    if (g_wrong_lines.Allows()) ZLOG_CTX_ERROR(729, "%s: %d: Empty parse string", kReader, __LINE__);
    return kOtherEvent;
  }
  if (!line->Parse(text)) {
    if (g_wrong_lines.Allows())
      ZLOG_CTX_ERROR(729, "%s: Exception while parsing JSON string, %s", kReader, line->error().c_str());
    return kOtherEvent;
  }
  if (!line->Has(Member::kEventType)) {
    if (g_wrong_lines.Allows())
      ZLOG_CTX_ERROR(729, "%s: Exception while retrieving event type from JSON, %s", kReader,
                     WhyNot(*line, Member::kEventType).c_str());
    return kOtherEvent;
  }
  if (line->Is(Member::kEventType, "alert")) return kAlertEvent;
  return line->Is(Member::kEventType, "flow-snip") ? kFlowSnipEvent : kOtherEvent;
}

std::unique_ptr<IdsEvent> ReadAlert(const JsonLine& line) {
  auto event = Read(line, kAlertEvent);
  event->flow_match = MatchOf(*event);
  if (event->flow_match == kNoMatch && g_wrong_addresses.Allows())
    ZLOG_CTX_ERROR(608, "Invalid IP addresses received, attack src: %s, dest : %s, flow src: %s, dest: %s",
                   event->src_ip.c_str(), event->dest_ip.c_str(), event->flow_src_ip.c_str(),
                   event->flow_dest_ip.c_str());
  return event;
}

std::unique_ptr<IdsEvent> ReadCapture(const JsonLine& line) { return Read(line, kFlowSnipEvent); }

}  // namespace IdsEvtEng
