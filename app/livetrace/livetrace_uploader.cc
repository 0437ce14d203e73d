#include "app/livetrace/livetrace_uploader.h"

#include <unistd.h>

#include <system_error>

#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "framework/process/command.h"
#include "platform/core/loop_monitor.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "livetrace"};

constexpr const char* kHidden = "******";

}  // namespace

LivetraceUploader::LivetraceUploader(std::vector<std::string> command, File file,
                                     LivetraceSession::UploadTarget target, Completion completion)
    : command_(std::move(command)),
      file_(std::move(file)),
      target_(std::move(target)),
      completion_(std::move(completion)) {}

LivetraceUploader::~LivetraceUploader() { Join(); }

bool LivetraceUploader::Start() {
  NativeThread::Options options;
  options.name = "livetrace-up";
  try {
    thread_ = NativeThread(std::move(options), [this] {
      const LoopThread loop("livetrace-up", LoopKind::kWorker);
      {
        const LoopStep step("upload of a capture");
        Upload();
      }
      done_ = true;
    });
  } catch (const std::system_error& error) {
    ZLOG_WARN("No thread for the upload of %s: %s", file_.local_path.c_str(), error.what());
    return false;
  }
  return true;
}

void LivetraceUploader::Join() {
  if (thread_.joinable()) thread_.Join();
}

std::string LivetraceUploader::Request(const std::string& id) const {
  return "{\"local_path\": " + JsonQuoted(file_.local_path) + ", \"generate_id\": " + JsonQuoted(id) +
         ", \"manager_info\": {\"manager_uri\":" + JsonQuoted(file_.target_folder + id) +
         ",\n\"server\": " + JsonQuoted(target_.server) + ", \"port\": " + std::to_string(target_.port) +
         ", \"thumbprint\": " + JsonQuoted(target_.thumbprint) + "}}";
}

void LivetraceUploader::Upload() {
  ZLOG_INFO("Start uploading file %s", file_.local_path.c_str());
  const int result = ExecuteCmd(command_, Request(target_.id), &stop_);
  // Whoever has the upload's id may write the file.
  ZLOG_INFO("Finished uploading file %s: ret=%d, inStr: %s", file_.local_path.c_str(), result,
            Request(kHidden).c_str());
  RemoveFile();
  if (!stop_) completion_();
}

void LivetraceUploader::RemoveFile() const {
  if (::unlink(file_.local_path.c_str()) != 0)
    ZLOG_WARN("Failed to delete file %s", file_.local_path.c_str());
}

}  // namespace zem::Tarvik
