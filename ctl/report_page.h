#pragma once

#include <string>

namespace zem::ctl {

/// The page that shows `data`, a JSON object: complete in itself, so it opens anywhere.  Names in the data
/// come from the manager and from guests; the page takes them as text and nothing else, whatever they are.
std::string ReportPage(const std::string& data);

}  // namespace zem::ctl
