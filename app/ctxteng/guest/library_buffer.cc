#include "app/ctxteng/guest/library_buffer.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

// The largest answer that a guest could need; a longer one is a mistake of the library.
constexpr size_t kMostBytes = 16 << 20;
constexpr size_t kIpTextSize = 40;

}  // namespace

std::string Narrow(std::string_view bytes) {
  const size_t step = bytes.size() >= 2 && bytes[1] == '\0' ? 2 : 1;
  if (step == 1) return std::string(bytes.substr(0, bytes.find('\0')));
  size_t length = 0;
  while (length * 2 < bytes.size() && bytes[length * 2] != '\0') ++length;
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = bytes[i * 2];
  return text;
}

void IpToString(char* buffer, size_t length, const char* record, size_t available) {
  if (record == nullptr) {
    ZLOG_CTX_ERROR(1051, "Invalid IP pointer.");
    return;
  }
  if (length == 0) {
    ZLOG_CTX_ERROR(1051, "Invalid ipStrLen");
    return;
  }
  buffer[0] = '\0';
  uint32_t type = 0;
  if (available < sizeof(type)) return;
  std::memcpy(&type, record, sizeof(type));
  if (type > 1) {
    std::snprintf(buffer, length, "Invalid ip type %d", static_cast<int>(type));
    return;
  }
  const size_t size = type == 0 ? 4 : 16;
  if (available - sizeof(type) < size) return;
  const int family = type == 0 ? AF_INET : AF_INET6;
  if (::inet_ntop(family, record + sizeof(type), buffer, static_cast<socklen_t>(length)) == nullptr)
    buffer[0] = '\0';
}

bool LibraryBuffer::Allocate(size_t size) {
  Clear();
  if (size > kMostBytes) return false;
  bytes_.reset(new (std::nothrow) char[size]());
  if (bytes_ == nullptr) return false;
  size_ = size;
  return true;
}

std::string_view LibraryBuffer::Bytes(size_t offset, size_t size) const {
  if (offset >= size_) return {};
  return {bytes_.get() + offset, std::min(size, size_ - offset)};
}

std::string_view LibraryBuffer::BytesBehind(size_t offset, size_t size) const {
  const auto pointer = Number<uint64_t>(offset);
  const auto begin = reinterpret_cast<uint64_t>(bytes_.get());
  if (pointer < begin || pointer - begin >= size_) return {};
  return Bytes(static_cast<size_t>(pointer - begin), size);
}

std::string LibraryBuffer::IpAt(size_t offset) const {
  char text[kIpTextSize] = "";
  const std::string_view record = Bytes(offset, 20);
  if (!record.empty()) IpToString(text, sizeof(text), record.data(), record.size());
  return text;
}

}  // namespace Ctxt
