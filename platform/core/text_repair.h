#pragma once

#include <string>

namespace zem {

/// The text with a "?" in place of each byte that is no UTF-8: readers of messages and of JSON refuse a whole
/// text for one of them.
std::string RepairText(std::string text);

}  // namespace zem
