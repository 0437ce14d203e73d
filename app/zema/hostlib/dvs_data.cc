#include "app/zema/hostlib/dvs_data.h"

namespace zem::zema {

DvsData::~DvsData() {
  if (data_ != nullptr && library_.loaded()) library_.calls().data_free(data_);
}

uint32_t DvsData::Alloc() {
  return library_.loaded() ? library_.calls().data_alloc(&data_) : kSwitchNotLoaded;
}

uint32_t DvsData::Deserialize(std::string_view bytes) {
  if (!library_.loaded()) return kSwitchNotLoaded;
  return library_.calls().data_deserialize(bytes.data(), static_cast<uint32_t>(bytes.size()), &data_);
}

uint32_t DvsData::Update(const char* name, std::string_view value) {
  return library_.calls().data_update(data_, name, value.data(), static_cast<uint32_t>(value.size()),
                                      DVS_PROPERTY_FLAGS);
}

uint32_t DvsData::Remove(const char* name) { return library_.calls().data_remove(data_, name); }

uint32_t DvsData::Serialize(LibraryBuffer* bytes) const {
  return library_.calls().data_serialize(data_, DVS_FORMAT, bytes->data(), bytes->length());
}

std::optional<std::string_view> DvsData::Text(std::string_view name) const {
  const auto bytes = Bytes(name);
  if (!bytes) return std::nullopt;
  return bytes->substr(0, bytes->find('\0'));
}

std::optional<std::string_view> DvsData::Bytes(std::string_view name) const {
  const SwitchLibrary::Calls& calls = library_.calls();
  for (DVSDataItem* item = calls.data_next(data_, nullptr); item != nullptr;
       item = calls.data_next(data_, item)) {
    if (name != calls.data_name(item)) continue;
    uint32_t length = 0;
    const auto* const bytes = static_cast<const char*>(calls.data_data(item, &length));
    return std::string_view(bytes, length);
  }
  return std::nullopt;
}

}  // namespace zem::zema
