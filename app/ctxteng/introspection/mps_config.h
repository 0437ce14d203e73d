#pragma once

#include <string>

namespace Ctxt {

/// What a context profile says about its solution.
struct MpsConfig {
  std::string solution_id;
  std::string vendor_template_key;
  std::string file_categories;

  bool operator==(const MpsConfig&) const = default;
};

/// Reads the JSON value of a context profile's attribute.  A field that cannot be read stays empty, which is
/// logged.
MpsConfig ReadMpsConfig(const std::string& json);

}  // namespace Ctxt
