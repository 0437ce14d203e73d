#include "app/supportbundle/support_bundle_worker_thread.h"

#include <array>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <deque>
#include <exception>
#include <filesystem>
#include <optional>

#include "app/supportbundle/bundle_script.h"
#include "app/supportbundle/temp_bundle_link_resource.h"
#include "app/supportbundle/upload_text.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr auto kPollPeriod = std::chrono::seconds(5);
constexpr const char* kFolder = "/tmp";
// How the collecting script's bundles begin.
constexpr const char* kBundlePrefix = "zem-sbundle-";
constexpr size_t kMostPrinted = 1024;
constexpr size_t kMostStateText = size_t{64} << 10U;
constexpr std::string_view kFileServerMark = "FS";
constexpr int kUploadRefused = 4;

struct CollectResult {
  int exit_status;
  BundleStatus status;
};
constexpr std::array kCollectResults = {
    CollectResult{124, BundleStatus::kCollectTimedOut}, CollectResult{4, BundleStatus::kCollect4Or63},
    CollectResult{63, BundleStatus::kCollect4Or63},     CollectResult{64, BundleStatus::kCollect64},
    CollectResult{68, BundleStatus::kCollect68},        CollectResult{70, BundleStatus::kCollect70},
    CollectResult{27, BundleStatus::kCollect27},
};

BundleStatus StatusOfCollect(int exit_status) {
  for (const CollectResult& row : kCollectResults) {
    if (row.exit_status == exit_status) return row.status;
  }
  return BundleStatus::kFailed;
}

// What a script has said, as it may stand in the log.
std::string Printed(std::string text, const BundleRequest& request) {
  if (!request.file_password.empty()) boost::replace_all(text, request.file_password, "******");
  if (text.size() > kMostPrinted) text.resize(kMostPrinted);
  return text;
}

// The bundles that a script names, each on a line of its own; removed with the object.  Among other lines
// only what is surely a bundle counts: a script may list the files that it has read.
class NamedBundles {
 public:
  explicit NamedBundles(const std::string& output) {
    std::deque<std::string> lines;
    boost::split(lines, boost::trim_copy(output), boost::is_any_of("\n"));
    for (std::string& line : lines) {
      boost::trim(line);
      const bool is_bundle =
          lines.size() == 1 || std::filesystem::path(line).filename().string().starts_with(kBundlePrefix);
      if (is_bundle && line.starts_with('/') && line.size() < kMostPrinted) held_.emplace_back(line);
    }
  }

 private:
  std::deque<TempBundleLinkResource> held_;
};

// Removes the bundles whose names end so.
void RemoveLeftovers(const std::string& name_end, const char* whose) {
  std::error_code unreadable;
  for (std::filesystem::directory_iterator at(kFolder, unreadable), end; !unreadable && at != end;
       at.increment(unreadable)) {
    const std::string name = at->path().filename().string();
    if (!name.starts_with(kBundlePrefix) || !name.ends_with(name_end)) continue;
    ZLOG_INFO("%s was left by %s", at->path().c_str(), whose);
    const TempBundleLinkResource removed(at->path());
  }
}

}  // namespace

void SupportBundleWorkerThread::Stop() {
  stopping_ = true;
  stop_.Stop();
}

void SupportBundleWorkerThread::Reset() {
  stopping_ = false;
  stop_.Reset();
}

void SupportBundleWorkerThread::Run() {
  ZLOG_INFO("Support bundle worker thread started");
  const LoopThread loop("sbundle:work", LoopKind::kWorker);
  RemoveLeftovers("", "an agent before");
  while (!stop_.WaitFor(kPollPeriod)) Pass();
}

void SupportBundleWorkerThread::Pass() {
  BundleRequest request;
  {
    LockWorkerInfo info(info_);
    if (info.state() != BundleStatus::kRequested) return;
    info.SetState(BundleStatus::kInWork);
    request = info.request();
    info.request().WipePassword();
  }
  try {
    Process(request);
  } catch (const std::exception& error) {
    Finish(BundleStatus::kFailed);
    ZLOG_ERROR("OPS60008", "std::exception while processing support bundle message: %s\n", error.what());
  } catch (...) {
    Finish(BundleStatus::kFailed);
    ZLOG_ERROR("OPS60012", "caught unknown exception\n");
  }
  request.WipePassword();
}

void SupportBundleWorkerThread::Finish(BundleStatus status) { LockWorkerInfo(info_).SetState(status); }

void SupportBundleWorkerThread::Process(BundleRequest& request) {
  const LoopStep step("bundle");
  ZLOG_INFO("Processing new bundle request");
  std::string output;
  std::string error;
  pid_t pid = -1;
  const int result =
      ExecuteCmd({scripts_.interpreter, scripts_.collect, kFolder, request.first_text, request.content,
                  std::to_string(request.number), request.flag ? "true" : "false"},
                 "", &output, &error, &stopping_, scripts_.collect_limit, &pid);
  const NamedBundles bundles(output);
  if (result != 0) {
    // A script that was killed has told no name.
    if (pid > 0) RemoveLeftovers("-" + std::to_string(pid) + ".tgz", "a script that was ended");
    const std::string out = Printed(output, request);
    const std::string err = Printed(error, request);
    ZLOG_ERROR("OPS60014", "Error invoking collect script, ret: %d, output: %s, error: %s\n", result,
               out.c_str(), err.c_str());
    ZLOG_INFO("Bundle request failed, rc: %d, out: %s, err: %s", result, out.c_str(), err.c_str());
    Finish(StatusOfCollect(result));
    return;
  }
  {
    LockWorkerInfo info(info_);
    if (info.state() == BundleStatus::kBeingCancelled) {
      info.SetState(BundleStatus::kCancelled);
      return;
    }
  }
  boost::trim(output);
  Upload(request, output);
}

void SupportBundleWorkerThread::Upload(BundleRequest& request, const std::string& local_path) {
  std::optional<std::string> text = UploadText(request, local_path);
  if (!text) {
    ZLOG_WARN("a value of the bundle's request has a control character, the bundle is not sent");
    Finish(BundleStatus::kUploadFailed);
    return;
  }
  ZLOG_INFO("Uploading bundle");
  std::string output;
  std::string error;
  pid_t pid = -1;
  const int result = ExecuteCmd({scripts_.interpreter, scripts_.upload, local_path}, std::move(*text),
                                &output, &error, &stopping_, scripts_.upload_limit, &pid);
  if (result != 0) {
    const std::string out = Printed(output, request);
    const std::string err = Printed(error, request);
    ZLOG_ERROR("OPS60015", "Error invoking upload script, ret: %d, output: %s, error: %s\n", result,
               out.c_str(), err.c_str());
    ZLOG_INFO("Bundle upload failed, rc: %d, out: %s, err: %s", result, out.c_str(), err.c_str());
    Finish(result == kUploadRefused ? BundleStatus::kUpload4 : BundleStatus::kUploadFailed);
    return;
  }
  if (output.size() > kMostStateText) output.resize(kMostStateText);
  const bool to_file_server = output.starts_with(kFileServerMark);
  {
    LockWorkerInfo info(info_);
    info.SetState(to_file_server ? BundleStatus::kAtFileServer : BundleStatus::kAtManager);
    info.SetStateText(std::move(output));
  }
  if (to_file_server) {
    ZLOG_INFO("Successfully authenticated and uploaded bundle to file server: %s",
              request.file_server.c_str());
  } else {
    ZLOG_INFO("Successfully uploaded bundle to manager");
  }
}

}  // namespace zem::Tarvik
