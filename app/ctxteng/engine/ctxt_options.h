#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <string>

#include "app/ctxteng/engine/ctxt_core.h"

namespace Ctxt {

inline constexpr const char* kCtxtOptionsPath = "/etc/orlane/zem-tarvik/zem-ctxteng.xml";

/// Reads the engine's options file into `whole` and its `config.ctxteng` into `engine`, and the start
/// parameters out of it.  Returns false, after a log line, when the file does not give them.
[[nodiscard]] bool LoadCtxtOptions(const std::string& path, boost::property_tree::ptree* whole,
                                   boost::property_tree::ptree* engine, CtxtCore::Settings* settings);

}  // namespace Ctxt
