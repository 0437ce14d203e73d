#pragma once

#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;

/// Where the agent's scripts for bundles keep their journal on this node.
inline constexpr const char* kBundleFolder = "/run/zem-bundles";

/// Registers the commands over the scripts that make and send bundles, and over the bundles themselves.
void RegisterBundleCommands(CommandTable& table);

/// The bundles that stand in the folder of temporary files, with what belongs to them.
std::vector<std::string> TemporaryBundles();

}  // namespace zem::sim
