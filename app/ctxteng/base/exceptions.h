#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

/// Base of the engine's exceptions: one message, which begins with the class's name and the thread that made
/// the exception.
class CtxtBaseException : public std::exception {
 public:
  const char* what() const noexcept override { return message_.c_str(); }

 protected:
  /// The message is `class_name`, "@tid=", the caller's thread id and ": "; `Append` adds the detail.
  explicit CtxtBaseException(const char* class_name);
  /// An empty message, for a class whose text names no thread.
  CtxtBaseException() = default;
  void Append(const std::string& detail) { message_ += detail; }

 private:
  std::string message_;
};

namespace Ctxt {

class CtxtException : public CtxtBaseException {
 public:
  explicit CtxtException(const std::string& text) : CtxtException("Ctxt::CtxtException", text) {}

 protected:
  CtxtException(const char* class_name, const std::string& detail) : CtxtBaseException(class_name) {
    Append(detail);
  }
};

class CtxtInvalidParameterError final : public CtxtException {
 public:
  CtxtInvalidParameterError(const std::string& parameter, const std::string& reason)
      : CtxtException("Ctxt::CtxtInvalidParameterError", parameter + ": " + reason) {}
};

/// A call of the guest event library that failed.
class EndvatApiError final : public CtxtException {
 public:
  /// `code_name` is the text of `code`.
  EndvatApiError(const std::string& call, uint32_t code, const std::string& code_name)
      : CtxtException("Ctxt::EndvatApiError",
                      call + " failed. Error: " + std::to_string(code) + " (" + code_name + ")") {}
};

class CtxtChannelError final : public CtxtException {
 public:
  explicit CtxtChannelError(const std::string& text) : CtxtException("Ctxt::CtxtChannelError", text) {}
};

class CtxtBoostThreadResourceError final : public CtxtException {
 public:
  explicit CtxtBoostThreadResourceError(const std::string& cause)
      : CtxtException("Ctxt::CtxtBoostThreadResourceError", "Error creating thread: " + cause) {}
};

class CtxtFwInitError final : public CtxtException {
 public:
  explicit CtxtFwInitError(const std::string& cause)
      : CtxtException("Ctxt::CtxtFwInitError", "Failed to initialize firewall library, " + cause) {}
};

class CtxtMemoryAllocationError final : public CtxtException {
 public:
  CtxtMemoryAllocationError(const std::string& what, size_t size)
      : CtxtException("Ctxt::CtxtMemoryAllocationError", what + " size: " + std::to_string(size)) {}
};

class CtxtProtobufError final : public CtxtException {
 public:
  explicit CtxtProtobufError(const std::string& text) : CtxtException("Ctxt::CtxtProtobufError", text) {}
};

class CtxtCoveDbMonitorError final : public CtxtException {
 public:
  explicit CtxtCoveDbMonitorError(const std::string& text)
      : CtxtException("Ctxt::CtxtCoveDbMonitorError", text) {}
};

}  // namespace Ctxt
