#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct cJSON;

namespace zem::ctl {

/// A JSON value out of an answer, or a part of one; a part keeps the whole alive.  Reading what is not there
/// gives empty values, since an older daemon leaves out what it does not know.
class Json {
 public:
  Json() = default;
  /// An empty one when `text` is not JSON.
  static Json Parse(const std::string& text);

  /// `text` as a JSON string, its quotes included.
  static std::string Quoted(const std::string& text);

  explicit operator bool() const { return value_ != nullptr; }

  Json operator[](const char* key) const;
  /// The elements of an array, otherwise none.
  std::vector<Json> elements() const;
  size_t size() const;

  /// The text of a string, the digits of a number, "yes" or "no", the texts of an array; empty for anything
  /// else.
  std::string text() const;
  /// 0 for what is not a number.
  double number() const;
  bool is_true() const;
  bool is_number() const;

  /// The JSON itself, on one line.
  std::string Compact() const;

 private:
  Json(std::shared_ptr<cJSON> root, const cJSON* value) : root_(std::move(root)), value_(value) {}

  std::shared_ptr<cJSON> root_;
  const cJSON* value_ = nullptr;
};

}  // namespace zem::ctl
