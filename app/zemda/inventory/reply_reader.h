#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "app/zemda/inventory/qub_objects.h"

namespace ZemDa {

/// A line of a reply without its end; what is no UTF-8 in it is replaced.
ReplyLine SplitLine(const std::string& line);

/// Reads the blocks of a reply of the inventory daemon, one after the other.  What does not belong where it
/// stands is passed over; an incomplete record is dropped with a log line.
class ReplyReader {
 public:
  /// `lines` outlives the reader.
  explicit ReplyReader(const std::vector<ReplyLine>& lines) : lines_(lines) {}

  /// The next object; nothing at the end.
  std::optional<InventoryUpdate> Next();

 private:
  bool AtBlockEnd() const;
  const ReplyLine* Take();
  std::optional<std::string> TakeValue(const char* key);
  QubVM ReadVm();
  void ReadDevice(const ReplyLine& first, QubVM* vm);
  void ReadAddresses(const ReplyLine& first, QubVM* vm);
  void ReadRuntimeDevice(const ReplyLine& first, QubVM* vm);
  void ReadVmChange(const std::string& name, QubVM* vm);
  QubHost ReadHost();
  void ReadManagementInterface(const ReplyLine& first, QubHost* host);
  void ReadDpu(const ReplyLine& first, QubHost* host);
  void ReadHostChange(const std::string& name, QubHost* host);

  const std::vector<ReplyLine>& lines_;
  size_t at_ = 0;
  std::string update_type_;
};

}  // namespace ZemDa
