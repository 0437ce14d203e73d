#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "framework/options/option_row.h"

namespace zem::Tarvik {

/// The values in force of options whose text in the file is `given`: nothing gives the default, a value that
/// the option does not take what its row says.  One that makes the file unusable is returned as it stands.
bool FlagValue(const OptionRow& row, const std::optional<std::string>& given);
int64_t NumberValue(const OptionRow& row, const std::optional<std::string>& given);
std::string TextValue(const OptionRow& row, const std::optional<std::string>& given);
/// The same as text, for any type.
std::string ValueInForce(const OptionRow& row, const std::optional<std::string>& given);

/// What is wrong with the text, as a sentence's end; empty when it is a value of the option.
std::string ValueFault(const OptionRow& row, const std::string& text);

/// The text is a whole number, within the range or not.
bool IsNumber(const std::string& text);

/// "true or false", "0 to 6", "text".
std::string RangeText(const OptionRow& row);

/// Something in a file that the daemon does not take.
struct OptionFault {
  int line;  ///< 0 for the file as a whole
  std::string key;
  std::string what;
};

/// The options of `rows` with their values in force as JSON, and `faults`.  `given` tells what the file has
/// for a row.
std::string OptionsText(std::span<const OptionRow> rows, const std::vector<OptionFault>& faults,
                        const std::function<std::optional<std::string>(const OptionRow&)>& given);

}  // namespace zem::Tarvik
