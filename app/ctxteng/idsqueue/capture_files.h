#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace IdsEvtEng {

class Interruption;

/// Which capture: its flow, and its time in microseconds.
struct CaptureKey {
  uint64_t flow_id = 0;
  uint64_t snip_ts_us = 0;
  bool operator==(const CaptureKey&) const = default;
  bool operator<(const CaptureKey& other) const {
    return std::tie(flow_id, snip_ts_us) < std::tie(other.flow_id, other.snip_ts_us);
  }
};

/// The capture that a file of this name holds: the name up to its last point is a number, any character and a
/// number.
std::optional<CaptureKey> ParseCaptureName(const std::string& name);

/// One capture's file.
struct Capture {
  /// Without the bytes when the file is larger than the reader wanted.
  std::string bytes;
  /// Of the file.
  uint64_t length = 0;
  uint64_t last_write_s = 0;
};

/// The folder in which the detection process leaves captures.  Another program writes there, so only regular
/// files count, and no link is followed.
///
/// Threads: `Remove` and `RemoveStale` from any thread.
class CaptureFiles {
 public:
  /// `interruption` outlives the object; it ends a walk through the folder.
  CaptureFiles(std::string directory, const Interruption& interruption)
      : directory_(std::move(directory)), interruption_(interruption) {}

  const std::string& directory() const { return directory_; }
  bool IsDirectory() const;

  /// Errors are logged; a file that is gone already is none.
  void Remove(CaptureKey key) const;
  /// Removes the files whose last write is more than `age` ago.  Throws std::system_error when the folder
  /// cannot be read.
  void RemoveStale(zem::Duration age) const;

  /// The reads of one round.  The folder is walked once at most, for files whose name is not the usual form.
  ///
  /// Threads: one owner.
  class Reader {
   public:
    explicit Reader(const CaptureFiles& files) : files_(files) {}

    /// Nothing when there is no such file.  `most` bytes are read at most; a file that is larger comes
    /// without them.
    std::optional<Capture> Read(CaptureKey key, size_t most, bool remove);

   private:
    zem::UniqueFd Open(CaptureKey key, std::string* name);
    void FindUnusualNames(CaptureKey key);

    const CaptureFiles& files_;
    bool opened_ = false;
    zem::UniqueFd folder_;
    bool walked_ = false;
    std::map<CaptureKey, std::string> unusual_names_;
  };

 private:
  std::string PathOf(const std::string& name) const { return directory_ + "/" + name; }
  void RemoveFile(const std::string& path) const;
  template <class Visit>
  void Walk(Visit visit) const;

  const std::string directory_;
  const Interruption& interruption_;
};

}  // namespace IdsEvtEng
