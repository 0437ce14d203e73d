#include "framework/options/option_file.h"

#include <array>

#include "framework/options/context_option_table.h"
#include "framework/options/discovery_option_table.h"
#include "framework/options/option_table.h"

namespace zem::Tarvik {
namespace {

constexpr std::array kFiles = {
    OptionFile{"zem-tarvik.xml", "tarvik", kOptionRows, "the daemon does not start"},
    OptionFile{"zem-ctxteng.xml",
               "ctxteng",
               kContextOptionRows,
               "the context engine does not start",
               {},
               kContextClients},
    OptionFile{"zem-da.xml", "zemda", kDiscoveryOptionRows, "the discovery agent takes its defaults"},
    OptionFile{"zema.json", "", kRealizationOptionRows, "the realization does not start", kRealizationOrders},
};

}  // namespace

std::span<const OptionFile> OptionFiles() { return kFiles; }

}  // namespace zem::Tarvik
