#pragma once

#include <span>
#include <string_view>

#include "framework/options/option_row.h"
#include "framework/options/realization_option_table.h"

namespace zem::Tarvik {

/// A file of options that the daemon reads.
struct OptionFile {
  std::string_view name;
  /// The section of an XML file that tells it from the others; empty for the one that is JSON.
  std::string_view section;
  std::span<const OptionRow> rows;
  /// What becomes of a file that is not used, as a sentence's end.
  std::string_view refusal;
  std::span<const OptionOrder> orders = {};
  /// Flags of which one at least has to be set.
  std::span<const std::string_view> one_of = {};
};

/// All of them; the daemon's own is the first.
std::span<const OptionFile> OptionFiles();

}  // namespace zem::Tarvik
