#include "app/pktcap/service/pktcap_uploader.h"

#include <algorithm>

#include "app/pktcap/tools/tool_process.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "platform/core/wipe_text.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr auto kUploadLimit = std::chrono::minutes(30);
constexpr const char* kHidden = "******";
constexpr size_t kLongestErrorLine = 1024;

std::string UploadPath(const std::string& session_id, const std::string& token) {
  return "api/v1/pktcap/session/" + session_id + "/capturefile/" + token;
}

}  // namespace

UploadTarget::~UploadTarget() {
  WipeText(&token);
  WipeText(&fingerprint);
}

PktcapUploader::PktcapUploader(const CaptureTools& tools, std::string session_id, std::string file,
                               const UploadTarget& target)
    : tools_(tools), session_id_(std::move(session_id)), file_(std::move(file)), target_(target) {}

PktcapUploader::~PktcapUploader() {
  WipeText(&target_.token);
  WipeText(&target_.fingerprint);
  // What is printed is what is left of them.
  ZLOG_INFO("Session %s uploader destructed, token %s, url %s and thumbprint %s cleared.",
            session_id_.c_str(), target_.token.c_str(), "", target_.fingerprint.c_str());
}

std::string PktcapUploader::Input(const std::string& token) const {
  return "{\n\t\"local_path\":" + JsonQuoted(file_) + ",\n\t\"generate_id\":" + JsonQuoted(token) +
         ",\n\t\"manager_info\":{\n\t\t\"manager_uri\":" + JsonQuoted(UploadPath(session_id_, token)) +
         ",\n\t\t\"port\":" + target_.port + ",\n\t\t\"server\":" + JsonQuoted(target_.server) +
         ",\n\t\t\"thumbprint\":" + JsonQuoted(target_.fingerprint) + "}\n}\n";
}

bool PktcapUploader::Run() {
  // Whoever has the token may write the file.
  ZLOG_INFO("Session %s starts to uploading file %s, parameters %s", session_id_.c_str(), file_.c_str(),
            Input(kHidden).c_str());
  std::string output;
  std::string errors;
  const int result = InvokeCmd({tools_.python, tools_.upload}, Input(target_.token), &output, &errors,
                               {.stop = &stop_, .limit = kUploadLimit});
  if (result == 0) {
    ZLOG_INFO("Session %s uploaded file %s", session_id_.c_str(), file_.c_str());
    return true;
  }
  errors.resize(std::min(errors.size(), kLongestErrorLine));
  ZLOG_WARN("Session %s failed to upload file %s, ret %d, error %s", session_id_.c_str(), file_.c_str(),
            result, errors.c_str());
  return false;
}

}  // namespace zem::Tarvik
