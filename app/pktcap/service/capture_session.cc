#include "app/pktcap/service/capture_session.h"

#include "app/pktcap/service/capture_points.h"
#include "framework/log/log.h"
#include "platform/core/wipe_text.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

}  // namespace

CaptureSession::~CaptureSession() {
  if (!to_file()) return;
  WipeText(&upload.token);
  WipeText(&upload.fingerprint);
  // What is printed is what is left of them.
  ZLOG_INFO("session upload token %s cleared.", upload.token.c_str());
  ZLOG_INFO("session fingerprint %s cleared.", upload.fingerprint.c_str());
}

bool CaptureSession::to_file() const { return request.cap_mode() == kFileMode; }

}  // namespace zem::Tarvik
