#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "framework/options/option_check.h"
#include "framework/options/option_file.h"

namespace zem::Tarvik {

/// Compares what stands in a file, told in the order of the text, with the table of its options.
class OptionFindings {
 public:
  OptionFindings(const OptionFile& file, OptionCheck* check) : file_(file), check_(*check) {}

  enum class Kind {
    kSection,  // to be looked into
    kList,     // to be told with its values
    kValue,    // to be told with its text
    kKnown,    // told of already; nothing in it counts
  };
  /// What stands at `line` under the name `name` in the section `above`, which ends in a dot or is empty.
  Kind KindOf(const std::string& above, const std::string& name, int line);
  void Value(const std::string& key, const std::string& text, int line);

  /// After the last one: what is missing or contradicts another.
  void Finish();

  std::optional<std::string> Given(const OptionRow& row) const;

 private:
  const OptionRow* Find(std::string_view key) const;
  bool IsSection(const std::string& key) const;
  bool Counts(const OptionRow& row) const;
  void Refuse(int line, std::string_view key, const std::string& what);
  bool HasRoom(int line);
  void TellUnknown(const std::string& key, int line);

  struct Found {
    std::string text;
    int line;
  };
  const OptionFile& file_;
  OptionCheck& check_;
  std::map<std::string_view, Found> given_;
  std::set<std::string> sections_;
};

}  // namespace zem::Tarvik
