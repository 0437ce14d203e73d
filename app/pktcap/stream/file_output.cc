#include "app/pktcap/stream/file_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zem::Tarvik {

const char* FileOutput::TakeHeader(std::string_view header) {
  const size_t written = Write(header);
  if (written < header.size()) return CutBack(0);
  size_ += written;
  return nullptr;
}

const char* FileOutput::Take(const PcapRecord& record) {
  if (run_.data() + run_.size() == record.whole.data() && !run_.empty()) {
    run_ = {run_.data(), run_.size() + record.whole.size()};
  } else {
    // A packet between them was dropped.
    if (const char* const failed = Flush()) return failed;
    run_ = record.whole;
  }
  ++taken_.packets;
  taken_.bytes += record.captured_length;
  return nullptr;
}

const char* FileOutput::Flush() {
  if (run_.empty()) return nullptr;
  const size_t written = Write(run_);
  if (written < run_.size()) return CutBack(written);
  size_ += written;
  run_ = {};
  sent_ = taken_;
  return nullptr;
}

// Some file systems find only now that there is no room.
const char* FileOutput::Finish() {
  return ::fsync(file_.get()) == 0 || errno == EINVAL ? nullptr : kWriteFailed;
}

// Returns how many bytes were written; fewer than asked for on failure.
size_t FileOutput::Write(std::string_view bytes) const {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t part = ::write(file_.get(), bytes.data() + written, bytes.size() - written);
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) break;
    written += static_cast<size_t>(part);
  }
  return written;
}

const char* FileOutput::CutBack(size_t written) const {
  size_t whole = 0;
  while (whole + PcapReader::kRecordHeaderSize <= written) {
    uint32_t captured = 0;
    std::memcpy(&captured, run_.data() + whole + 8, sizeof(captured));
    const size_t next = whole + PcapReader::kRecordHeaderSize + captured;
    if (next > written) break;
    whole = next;
  }
  [[maybe_unused]] const int best_effort = ::ftruncate(file_.get(), static_cast<off_t>(size_ + whole));
  return kWriteFailed;
}

}  // namespace zem::Tarvik
