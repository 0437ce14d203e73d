#pragma once

#include "framework/options/option_row.h"

/// Every option of the discovery agent's file.
namespace zem::Tarvik {

inline constexpr OptionRow kDiscoveryOptionRows[] = {
    NumberOption("CommunicationHandler.ackTimeout", 0, 3'600, "1200",
                 "seconds in which the manager has to acknowledge what was sent")
        .Instead(600),
};

using DiscoveryOptionKey = KeyOf<kDiscoveryOptionRows>;

}  // namespace zem::Tarvik
