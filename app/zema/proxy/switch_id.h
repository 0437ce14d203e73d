#pragma once

#include <string>

namespace zem::zema {

/// Converts a switch's id from the text of a uuid to the host's form, "50 2e ... 1c-9d 11 ...": pairs of
/// hexadecimal digits separated by blanks, and "-" after the eighth.  A text with a blank is already in that
/// form and stays unchanged.  Returns false, with `id` unchanged, for anything else.
[[nodiscard]] bool ConvertDvsUuidToQubFormat(std::string* id);

}  // namespace zem::zema
