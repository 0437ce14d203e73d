#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

/// Named values in order, and their serialised form: "DVSD", version, total length, number of items, then for
/// each item: flags, length of the name (16 bits), length of the value, name, value.  Little endian, no
/// padding.
class ValueList {
 public:
  struct Item {
    std::string name;
    std::string value;
    uint32_t flags = 0;
  };

  std::vector<Item>& items() { return items_; }
  const std::vector<Item>& items() const { return items_; }

  /// Replaces the value of the name, or adds it.
  void Update(std::string_view name, std::string_view value, uint32_t flags);
  /// Returns false when there is no such name.
  bool Remove(std::string_view name);
  std::string Serialize() const;
  /// Parses the serialised form; nothing when the bytes are malformed.  Bytes after its end are ignored.
  static std::optional<ValueList> Deserialize(std::string_view bytes);

 private:
  std::vector<Item> items_;
};

}  // namespace zem::sim
