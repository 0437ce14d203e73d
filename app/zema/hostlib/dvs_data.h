#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "app/zema/hostlib/switch_library.h"

namespace zem::zema {

/// A list of properties in the switch library's memory.
///
/// Threads: one owner.
/// Errors: the library's codes.
class DvsData {
 public:
  explicit DvsData(const SwitchLibrary& library) : library_(library) {}
  ~DvsData();
  DvsData(const DvsData&) = delete;
  DvsData& operator=(const DvsData&) = delete;

  /// Creates an empty list.  Either Alloc or Deserialize is called first, and only once.
  uint32_t Alloc();
  uint32_t Deserialize(std::string_view bytes);

  uint32_t Update(const char* name, std::string_view value);
  uint32_t UpdateText(const char* name, const std::string& text) {
    return Update(name, {text.c_str(), text.size() + 1});
  }
  uint32_t Remove(const char* name);
  uint32_t Serialize(LibraryBuffer* bytes) const;
  /// Returns the text of a property, valid while the list does not change, or nothing when it is absent.
  std::optional<std::string_view> Text(std::string_view name) const;
  /// Returns the whole value as bytes.
  std::optional<std::string_view> Bytes(std::string_view name) const;

 private:
  const SwitchLibrary& library_;
  DVSData* data_ = nullptr;
};

}  // namespace zem::zema
