#pragma once

#include "app/pktcap/stream/packet_output.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// Writes a capture to a file.  Packets that stand side by side in the stream are written at once, without a
/// copy.  A disk that fills up leaves a file that ends with its last whole packet.
class FileOutput final : public PacketOutput {
 public:
  static constexpr const char* kWriteFailed = "write(): failed to write to local file";

  explicit FileOutput(UniqueFd file) : file_(std::move(file)) {}

  [[nodiscard]] const char* TakeHeader(std::string_view header) override;
  [[nodiscard]] const char* Take(const PcapRecord& record) override;
  [[nodiscard]] const char* Flush() override;
  [[nodiscard]] const char* Finish() override;

 private:
  size_t Write(std::string_view bytes) const;
  const char* CutBack(size_t written) const;

  const UniqueFd file_;
  uint64_t size_ = 0;
  std::string_view run_;  // records that are to be written
};

}  // namespace zem::Tarvik
