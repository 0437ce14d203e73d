#pragma once

#include <exception>
#include <string>
#include <utility>

namespace zem {

/// What the task frame throws: a message, and the failed call's result where there was one.
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
