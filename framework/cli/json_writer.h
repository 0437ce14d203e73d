#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct cJSON;

namespace zem {

/// `text` as a JSON string, its quotes included.  Bytes from 0x80 on stand as they are.
std::string JsonQuoted(std::string_view text);

/// Builds JSON whose members keep the order in which they were added; text out of it is compact.
///
///     JsonValue reply = JsonValue::Array();
///     JsonValue row = JsonValue::Object();
///     row.Add("StatsName", "ChildSpan_Total_Req").Add("Num", 7);
///     reply.Append(std::move(row));
class JsonValue {
 public:
  static JsonValue Object();
  static JsonValue Array();

  JsonValue(JsonValue&&) noexcept;
  JsonValue& operator=(JsonValue&&) noexcept;
  ~JsonValue();

  JsonValue& Add(const char* key, const char* text);
  JsonValue& Add(const char* key, const std::string& text) { return Add(key, text.c_str()); }
  JsonValue& Add(const char* key, bool value);
  JsonValue& Add(const char* key, JsonValue value);
  /// Whole numbers keep all their digits.
  JsonValue& Add(const char* key, int64_t number);
  JsonValue& Add(const char* key, uint64_t number);
  JsonValue& Add(const char* key, int number) { return Add(key, static_cast<int64_t>(number)); }
  JsonValue& Add(const char* key, unsigned number) { return Add(key, static_cast<uint64_t>(number)); }

  JsonValue& Append(JsonValue value);
  JsonValue& Append(const char* text);

  std::string Text() const;

 private:
  explicit JsonValue(cJSON* value);
  struct Deleter {
    void operator()(cJSON* value) const;
  };
  std::unique_ptr<cJSON, Deleter> value_;
};

}  // namespace zem
