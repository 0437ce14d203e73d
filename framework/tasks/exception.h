#pragma once

#include <exception>
#include <string>
#include <utility>

namespace zem {

/// Thrown by the task frame: a message, and the result of the call that failed, else 0.
class Exception : public std::exception {
 public:
  Exception(std::string message, int code) : message_(std::move(message)), code_(code) {}

  const char* what() const noexcept override { return message_.c_str(); }
  int code() const { return code_; }

 private:
  std::string message_;
  int code_;
};

}  // namespace zem
