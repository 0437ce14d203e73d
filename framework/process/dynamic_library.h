#pragma once

#include <span>
#include <string>

namespace zem {

/// A library of the host that may be missing: loaded by name, its functions found one by one.
///
/// Threads: `Open` and `Close` by the owner, while nobody calls into the library.
class DynamicLibrary {
 public:
  /// Where the address of a function goes.
  struct Symbol {
    const char* name;
    void** address;
  };

  /// `function` is a pointer to a function, of the type that the library's has.
  template <class Function>
  static Symbol Of(const char* name, Function* function) {
    return {name, reinterpret_cast<void**>(function)};
  }

  explicit DynamicLibrary(std::string file) : file_(std::move(file)) {}
  ~DynamicLibrary() { Close({}); }
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;

  /// Fills all of `symbols`.  False, with the reason in `error` and every address null, when the library or
  /// one of them is not there; each missing one is logged.
  [[nodiscard]] bool Open(std::span<const Symbol> symbols, std::string* error);
  /// Also makes all of `symbols` null.
  void Close(std::span<const Symbol> symbols);
  bool is_open() const { return handle_ != nullptr; }

 private:
  const std::string file_;
  void* handle_ = nullptr;
};

}  // namespace zem
