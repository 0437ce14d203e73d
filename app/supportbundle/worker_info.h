#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/core/clock.h"

namespace zem::Tarvik {

/// What the manager is told of a bundle.  The numbers are the manager's.
enum class BundleStatus : uint32_t {
  kNone = 0,  // no request yet
  kInvalidId = 1,
  kAtFileServer = 2,
  kAtManager = 3,
  kRequested = 5,  // waits for the worker
  kInWork = 6,
  kBeingCancelled = 8,  // ends as cancelled after the collecting, or with the upload's outcome
  kCancelled = 11,
  kUploadFailed = 12,
  kFailed = 13,
  kCollectTimedOut = 14,
  kBadRequest = 20,
  kBusy = 21,
  kCollect4Or63 = 22,
  kCollect64 = 23,
  kCollect68 = 24,
  kCollect70 = 25,
  kUpload4 = 26,
  kCollect27 = 27,
};

/// Returns whether a bundle of this status is not finished.
constexpr bool IsInProgress(BundleStatus status) {
  return status >= BundleStatus::kRequested && status <= BundleStatus::kBeingCancelled;
}

/// What the manager has asked for.
struct BundleRequest {
  std::string reply_to;
  std::string correlation_id;
  std::string first_text;
  std::string generate_id;
  std::string third_text;
  std::string content;
  uint32_t number = 0;
  bool flag = false;

  std::string manager_server;
  uint32_t manager_port = 0;
  std::string thumbprint;
  bool fqdn_required = false;
  // Each list is divided by single blanks.
  std::string fqdn;
  std::string ipv4_address;
  std::string ipv6_address;

  /// 0: no file server.
  uint32_t file_port = 0;
  std::string file_server;
  std::string file_protocol;
  std::string file_directory;
  std::string file_fingerprint;
  std::string file_user;
  std::string file_password;

  /// Overwrites the password.
  void WipePassword();
};

/// The one bundle that is in work or was last.  It is only reached through a LockWorkerInfo.
class WorkerInfo {
 private:
  friend class LockWorkerInfo;
  std::mutex mutex_;  // guards all below; nothing is sent and nothing run under it
  BundleStatus state_ = BundleStatus::kNone;
  std::string state_text_;
  TimePoint last_contact_;
  BundleRequest request_;
};

/// Holds the record of the bundle for as long as it exists.
class LockWorkerInfo {
 public:
  explicit LockWorkerInfo(WorkerInfo& info) : info_(info), lock_(info.mutex_) {}

  BundleStatus state() const { return info_.state_; }
  /// Empties the text.
  void SetState(BundleStatus state);
  const std::string& state_text() const { return info_.state_text_; }
  void SetStateText(std::string text) { info_.state_text_ = std::move(text); }

  /// Notes that the manager has asked for the bundle now.
  void Touch() { info_.last_contact_ = Clock::Process().Now(); }
  Duration SinceContact() const { return Clock::Process().Now() - info_.last_contact_; }

  BundleRequest& request() { return info_.request_; }
  /// Returns false before the first request, whose id nobody can know.
  bool HasId(const std::string& generate_id) const {
    return info_.state_ != BundleStatus::kNone && info_.request_.generate_id == generate_id;
  }

 private:
  WorkerInfo& info_;
  const std::lock_guard<std::mutex> lock_;
};

}  // namespace zem::Tarvik
