#pragma once

#include <string>

namespace ZemDa {

/// The text with a "?" in place of each byte that is no UTF-8: the manager refuses a message with others.
std::string RepairText(std::string text);

}  // namespace ZemDa
