#include "app/pktcap/service/session_start.h"

#include "app/pktcap/service/capture_points.h"
#include "app/pktcap/tools/tool_process.h"
#include "framework/log/log.h"
#include "proto/packetcapture/packetcapture.pb.h"

namespace zem::Tarvik {
namespace {

using orlane::zem::packetcapture::PktCapRequestMsg;

constexpr LogSource kLog{"tarvik", "pktcap"};
constexpr const char* kCode = "MPA00104";

CaptureLimits LimitsOf(const PktCapRequestMsg& request) {
  CaptureLimits limits;
  limits.duration_s = request.cap_duration();
  if (request.has_max_packets()) limits.packets = request.max_packets();
  if (request.has_max_bytes()) limits.bytes = request.max_bytes();
  if (request.packet_rate() != 0) limits.packet_rate = request.packet_rate();
  if (request.has_snap_length()) limits.snap_length = request.snap_length();
  return limits;
}

// One start; its steps come in the order in which their errors are told.
class Preparation {
 public:
  Preparation(const std::string& session_id, const PktCapRequestMsg& request,
              const CaptureParameters::Host& host, const std::atomic<bool>* stop)
      : request_(request),
        host_(host),
        stop_(stop),
        exporter_(new PktcapExporter(session_id, LimitsOf(request), host)) {}

  PreparedSession Run() {
    for (const auto step :
         {&Preparation::CheckFields, &Preparation::SetOutput, &Preparation::SetPoint, &Preparation::SetStage,
          &Preparation::SetDirection, &Preparation::SetCore, &Preparation::SetParameters}) {
      if (const SessionError error = (this->*step)(); error != SessionError::kNone)
        return {error, nullptr, ""};
    }
    return {SessionError::kNone, exporter_, file_};
  }

 private:
  SessionError Set(const char* name, const std::string& value) {
    return static_cast<SessionError>(exporter_->SetParameter(name, value, stop_));
  }

  SessionError CheckFields() {
    if (!request_.has_cap_duration()) {
      ZLOG_ERROR(kCode, "Field cap_duration not exist");
      return SessionError::kNoDuration;
    }
    if (!request_.has_cap_type()) {
      ZLOG_ERROR(kCode, "Field cap_type not exist");
      return SessionError::kNoType;
    }
    if (!request_.has_cap_value()) {
      ZLOG_ERROR(kCode, "Field cap_value not exist");
      return SessionError::kNoValue;
    }
    if (!request_.has_cap_mode()) {
      ZLOG_ERROR(kCode, "Field cap_mode not exist");
      return SessionError::kNoMode;
    }
    return SessionError::kNone;
  }

  SessionError SetOutput() {
    if (request_.cap_mode() == kFileMode) {
      file_ = TemporaryName(host_.tools.file);
      if (file_.empty()) {
        ZLOG_ERROR(kCode, "Failed to create temp file");
        return SessionError::kNotLaunched;
      }
      exporter_->SetOutputFile(file_);
      return SessionError::kNone;
    }
    if (request_.cap_mode() == kStreamMode) {
      if (!request_.has_stream_address() || !request_.has_stream_port()) {
        ZLOG_ERROR(kCode, "Field stream_address or stream_port not exist");
        return SessionError::kNoStreamAddress;
      }
      exporter_->SetOutputStream(request_.stream_address(), static_cast<uint16_t>(request_.stream_port()),
                                 true);
      return SessionError::kNone;
    }
    ZLOG_ERROR(kCode, "Unsupported value capMode %d", static_cast<int>(request_.cap_mode()));
    return SessionError::kUnknownMode;
  }

  SessionError SetPoint() {
    const CapturePoint* const point = FindCapturePoint(request_.cap_type());
    if (point == nullptr) {
      ZLOG_ERROR(kCode, "Unsupported value capType %d", static_cast<int>(request_.cap_type()));
      return SessionError::kUnknownType;
    }
    const SessionError error = Set(point->parameter, request_.cap_value());
    if (error != SessionError::kNone) {
      ZLOG_ERROR(kCode, "%s: %s",
                 error == SessionError::kNotSupported ? "Unsupported command on host" : point->not_found,
                 request_.cap_value().c_str());
    }
    return error;
  }

  SessionError SetStage() {
    if (!request_.has_stage()) return SessionError::kNone;
    const char* const stage = StageWord(request_.stage());
    if (stage == nullptr) {
      ZLOG_ERROR(kCode, "Unsupported stage %d", static_cast<int>(request_.stage()));
      return SessionError::kUnknownStage;
    }
    const SessionError error = Set("stage", stage);
    if (error != SessionError::kNone) ZLOG_ERROR(kCode, "Failed to set stage %s", stage);
    return error;
  }

  SessionError SetDirection() {
    if (request_.cap_type() == kDvfilterType) return SessionError::kNone;
    if (!request_.has_direction()) {
      ZLOG_ERROR(kCode, "Not found direction %s", request_.cap_value().c_str());
      return SessionError::kBadDirection;
    }
    const char* const direction = DirectionWord(request_.direction());
    if (direction == nullptr) {
      ZLOG_ERROR(kCode, "Unsupported direction %d", static_cast<int>(request_.direction()));
      return SessionError::kBadDirection;
    }
    const SessionError error = Set("dir", direction);
    if (error != SessionError::kNone) ZLOG_ERROR(kCode, "Failed to set dir %s", direction);
    return error;
  }

  SessionError SetCore() {
    if (!request_.has_core()) return SessionError::kNone;
    const std::string core = std::to_string(request_.core());
    const SessionError error = Set("core", core);
    if (error != SessionError::kNone) ZLOG_ERROR(kCode, "Invalid core parameter %s", core.c_str());
    return error;
  }

  SessionError SetParameters() {
    for (const auto& parameter : request_.param()) {
      const SessionError error = Set(parameter.name().c_str(), parameter.value());
      if (error == SessionError::kNone) continue;
      ZLOG_ERROR(kCode, "Invalid Param %s or value %s is ignored", parameter.name().c_str(),
                 parameter.value().c_str());
      return error;
    }
    return SessionError::kNone;
  }

  const PktCapRequestMsg& request_;
  const CaptureParameters::Host& host_;
  const std::atomic<bool>* const stop_;
  const boost::intrusive_ptr<PktcapExporter> exporter_;
  std::string file_;
};

}  // namespace

PreparedSession PrepareSession(const std::string& session_id, const PktCapRequestMsg& request,
                               const CaptureParameters::Host& host, const std::atomic<bool>* stop) {
  return Preparation(session_id, request, host, stop).Run();
}

}  // namespace zem::Tarvik
