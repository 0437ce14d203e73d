#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <string>

#include "sim/control/command_table.h"

namespace zem::sim {

/// The "--name value" and "--name" words of a command, apart from its positional ones.
class CommandOptions {
 public:
  CommandOptions(const Arguments& arguments, std::initializer_list<const char*> with_value,
                 std::initializer_list<const char*> flags);

  /// Returns an empty text on success; otherwise the text names the unknown word.
  const std::string& error() const { return error_; }
  const Arguments& positional() const { return positional_; }
  /// The positional words from index `first` on, joined with blanks.
  std::string Rest(size_t first) const;

  bool Has(const char* name) const { return values_.count(name) != 0; }
  std::optional<std::string> Value(const char* name) const;

 private:
  std::string error_;
  Arguments positional_;
  std::map<std::string, std::string> values_;
};

}  // namespace zem::sim
