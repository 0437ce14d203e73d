#pragma once

#include <string>

namespace zem::zema {

/// Turns a switch's id from a uuid's text into the host's form, "50 2e ... 1c-9d 11 ...": pairs of
/// hexadecimal digits with blanks, and "-" behind the eighth.  A text with a blank is in that form already
/// and stays. False, and `id` untouched, for anything else.
[[nodiscard]] bool ConvertDvsUuidToQubFormat(std::string* id);

}  // namespace zem::zema
