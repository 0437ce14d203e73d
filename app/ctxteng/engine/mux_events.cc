#include "app/ctxteng/engine/mux_events.h"

#include <exception>
#include <string>

#include "app/ctxteng/guest/endvat_util.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr uint32_t kDisconnectedCode = 12;

// The tag and the texts of an action that throws.
struct Guard {
  int tag;
  const char* known;
  const char* unknown;
};
constexpr Guard kConnected{171, "CtxtCore: Exception while processing mux connected event, error %s",
                           "CtxtCore: Unhandled exception while processing mux connected event"};
constexpr Guard kAlarm{
    172, "CtxtCore: Exception while processing mux disconnected event and setting alarm, error %s",
    "CtxtCore: Unhandled exception while processing mux disconnected and setting alarmevent"};
constexpr Guard kHealth{
    172, "CtxtCore: Exception while processing health status for  mux disconnected event, error %s",
    "CtxtCore: Unhandled exception while processing health status for mux disconnected event"};
constexpr Guard kReport{173, "CtxtCore: Exception while processing health status, error %s",
                        "CtxtCore: Unhandled exception while processing health status"};
constexpr Guard kSvmConnected{174,
                              "CtxtCore: Exception while processing SVM connected to MUX event, error %s",
                              "CtxtCore: Unhandled exception while processing SVM connected to MUX event"};
constexpr Guard kSvmDisconnected{
    175, "CtxtCore: Exception while processing SVM disconnected from MUX event, error %s",
    "CtxtCore: Unhandled exception while processing SVM disconnected from MUX event"};

template <class Action>
void Guarded(const Guard& guard, const Action& action) {
  try {
    action();
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(guard.tag, guard.known, error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(guard.tag, "%s", guard.unknown);
  }
}

}  // namespace

void MuxEvents::Handle(uint32_t type) {
  std::lock_guard lock(mutex_);
  switch (type) {
    case 0:
      ZLOG_INFO("CtxtCore: Received Mux connect from context-library");
      away_ = false;
      Guarded(kConnected, [this] {
        if (introspection_ != nullptr) introspection_->MuxConnected();
      });
      break;
    case 1:
      ZLOG_INFO("CtxtCore: Received Mux disconnect from context-library");
      away_ = true;
      Disconnected();
      break;
    case 2:
      ZLOG_INFO("CtxtCore: Received health status report from Mux");
      Guarded(kReport, [this] {
        if (health_ != nullptr) health_->ProcessHealth();
      });
      break;
    case 3:
      ZLOG_INFO("CtxtCore: Received SVM connect event from Mux");
      Guarded(kSvmConnected, [this] { ServiceVm(true); });
      break;
    case 4:
      ZLOG_INFO("CtxtCore: Received SVM disconnect event from Mux");
      Guarded(kSvmDisconnected, [this] { ServiceVm(false); });
      break;
    default:
      ZLOG_CTX_ERROR(176, "CtxtCore: Unknown event received from Mux");
      break;
  }
}

void MuxEvents::Disconnected() {
  Guarded(kAlarm, [this] {
    if (introspection_ != nullptr) introspection_->MuxDisconnected();
  });
  Guarded(kHealth, [this] {
    if (health_ != nullptr)
      health_->SendError(kDisconnectedCode, "zem-context-mux disconnected from Context Engine");
  });
}

void MuxEvents::ServiceVm(bool connected) {
  std::string id;
  if (EndvatUtil::GetSolutionId(&id) != ENDVAT_SUCCESS) return;
  if (connected) {
    ZLOG_INFO("CtxtCore: Solution Id from Mux for Solution Connect:{%s}", id.c_str());
    if (introspection_ != nullptr) introspection_->SvmConnected(id);
  } else {
    ZLOG_INFO("CtxtCore: Solution Id from Mux for Solution Disconnect:{%s}", id.c_str());
    if (introspection_ != nullptr) introspection_->SvmDisconnected(id);
  }
}

}  // namespace Ctxt
