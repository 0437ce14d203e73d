#include "framework/process/dynamic_library.h"

#include <dlfcn.h>

#include "framework/log/log.h"

namespace zem {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

std::string LastError() {
  const char* const text = dlerror();
  return text == nullptr ? "unknown error" : text;
}

}  // namespace

bool DynamicLibrary::Open(std::span<const Symbol> symbols, std::string* error) {
  Close(symbols);
  handle_ = dlopen(file_.c_str(), RTLD_LAZY);
  if (handle_ == nullptr) {
    *error = LastError();
    return false;
  }
  bool complete = true;
  for (const Symbol& symbol : symbols) {
    *symbol.address = dlsym(handle_, symbol.name);
    if (*symbol.address != nullptr) continue;
    const std::string reason = LastError();
    ZLOG_ERROR("44201", "Function [%s] is missing in [%s]: %s", symbol.name, file_.c_str(), reason.c_str());
    if (complete) *error = reason;
    complete = false;
  }
  if (!complete) Close(symbols);
  return complete;
}

void DynamicLibrary::Close(std::span<const Symbol> symbols) {
  for (const Symbol& symbol : symbols) *symbol.address = nullptr;
  if (handle_ != nullptr) dlclose(handle_);
  handle_ = nullptr;
}

}  // namespace zem
