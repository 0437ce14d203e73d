#include "ctl/metrics_text.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <memory>
#include <new>

#include "ctl/outcome.h"
#include "platform/core/text_repair.h"

// A family is a "# HELP" and a "# TYPE" line and the samples behind them; what has neither is a family of the
// type "untyped".

namespace zem::ctl {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::array<std::string_view, 4> kSampleEnds = {"", "_bucket", "_sum", "_count"};

cJSON* Checked(cJSON* value) {
  if (value == nullptr) throw std::bad_alloc();
  return value;
}

void AddText(cJSON* object, const char* key, std::string_view text) {
  Checked(cJSON_AddStringToObject(object, key, RepairText(std::string(text)).c_str()));
}

bool IsNamePart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == ':';
}

// What is left of one line.
class Line {
 public:
  explicit Line(std::string_view rest) : rest_(rest) {}

  bool Take(std::string_view text) {
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
  }
  void SkipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size())); }
  /// Empty when there is none.
  std::string_view Name() {
    return TakeFront(
        static_cast<size_t>(std::find_if_not(rest_.begin(), rest_.end(), &IsNamePart) - rest_.begin()));
  }
  std::string_view Word() { return TakeFront(std::min(rest_.find_first_of(kBlanks), rest_.size())); }
  /// A text up to the quote that ends it; false when none does.
  bool Quoted(std::string* text) {
    for (size_t i = 0; i < rest_.size(); ++i) {
      if (rest_[i] == '"') {
        *text = Unescaped(TakeFront(i));
        return Take("\"");
      }
      if (rest_[i] == '\\') ++i;
    }
    return false;
  }
  std::string Rest() const { return Unescaped(rest_); }
  bool empty() const { return rest_.empty(); }

 private:
  std::string_view TakeFront(size_t count) {
    const std::string_view front = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return front;
  }
  static std::string Unescaped(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] != '\\' || i + 1 == text.size()) {
        plain += text[i];
      } else {
        ++i;
        plain += text[i] == 'n' ? '\n' : text[i];
      }
    }
    return plain;
  }

  std::string_view rest_;
};

class Families {
 public:
  /// False when the line is not of the form.
  bool Add(std::string_view text) {
    Line line(text);
    if (line.empty()) return true;
    if (!line.Take("#")) return AddSample(line);
    line.SkipBlanks();
    for (const char* const member : {"HELP", "TYPE"}) {
      Line words = line;
      if (!words.Take(member) || !words.Take(" ")) continue;
      const std::string_view name = words.Name();
      if (name.empty() || !(words.Take(" ") || words.empty())) return false;
      Describe(name, member[0] == 'H' ? "help" : "type", words.Rest());
      return true;
    }
    return true;  // a remark
  }

  std::string Text() const {
    const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(root_.get()), &cJSON_free);
    if (text == nullptr) throw std::bad_alloc();
    return text.get();
  }

 private:
  void Describe(std::string_view name, const char* member, const std::string& text) {
    if (name != name_) Begin(name);
    cJSON_DeleteItemFromObject(family_, member);
    AddText(family_, member, text);
  }

  void Begin(std::string_view name) {
    family_ = Checked(cJSON_CreateObject());
    cJSON_AddItemToArray(list_, family_);
    name_ = name;
    AddText(family_, "name", name);
    AddText(family_, "type", "untyped");
    AddText(family_, "help", "");
    samples_ = Checked(cJSON_AddArrayToObject(family_, "samples"));
  }

  // A histogram's samples have more behind the name.
  bool BelongsToFamily(std::string_view name) const {
    if (name_.empty() || !name.starts_with(name_)) return false;
    return std::ranges::find(kSampleEnds, name.substr(name_.size())) != kSampleEnds.end();
  }

  bool AddSample(Line line) {
    const std::string name(line.Name());
    if (name.empty()) return false;
    if (!BelongsToFamily(name)) Begin(name);
    cJSON* const sample = Checked(cJSON_CreateObject());
    cJSON_AddItemToArray(samples_, sample);
    AddText(sample, "name", name);
    cJSON* const labels = Checked(cJSON_AddObjectToObject(sample, "labels"));
    if (line.Take("{") && !AddLabels(&line, labels)) return false;
    line.SkipBlanks();
    const std::string_view digits = line.Word();
    double value = 0;
    const char* const begin = digits.data() + (digits.starts_with('+') ? 1 : 0);
    const auto [end, error] = std::from_chars(begin, digits.data() + digits.size(), value);
    if (digits.empty() || end != digits.data() + digits.size() || error != std::errc()) return false;
    Checked(std::isfinite(value) ? cJSON_AddNumberToObject(sample, "value", value)
                                 : cJSON_AddNullToObject(sample, "value"));
    return true;  // a time may follow
  }

  static bool AddLabels(Line* line, cJSON* labels) {
    while (!line->Take("}")) {
      const std::string name(line->Name());
      std::string value;
      if (name.empty() || !line->Take("=\"") || !line->Quoted(&value)) return false;
      AddText(labels, name.c_str(), value);
      line->Take(",");
    }
    return true;
  }

  const std::unique_ptr<cJSON, void (*)(cJSON*)> root_{Checked(cJSON_CreateObject()), &cJSON_Delete};
  cJSON* const list_ = Checked(cJSON_AddArrayToObject(root_.get(), "metrics"));
  std::string name_;
  cJSON* family_ = nullptr;
  cJSON* samples_ = nullptr;
};

}  // namespace

std::string MetricsJson(std::string_view text) {
  Families families;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (!families.Add(text.substr(0, end))) {
      throw Failure(kDegraded, "line " + std::to_string(number) + " of the daemon's metrics cannot be read");
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return families.Text();
}

}  // namespace zem::ctl
