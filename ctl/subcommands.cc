#include <vector>

#include "ctl/listing.h"
#include "ctl/subcommand.h"

namespace zem::ctl {

extern const Subcommand kStatus;
extern const Subcommand kAlarms;
extern const Subcommand kInventory;
extern const Subcommand kStore;
extern const Subcommand kLog;
extern const Subcommand kOptions;
extern const Subcommand kMetrics;
extern const Subcommand kWatch;
extern const Subcommand kBundle;
extern const Subcommand kWhy;
extern const Subcommand kReport;

std::span<const Subcommand* const> Subcommands() {
  static const std::vector<const Subcommand*> subcommands = [] {
    std::vector<const Subcommand*> all = {&kStatus};
    for (const Subcommand& list : ListSubcommands()) all.push_back(&list);
    all.insert(all.end(), {&kAlarms, &kInventory, &kStore, &kLog, &kOptions, &kMetrics, &kWatch, &kBundle,
                           &kWhy, &kReport});
    return all;
  }();
  return subcommands;
}

const Subcommand* FindSubcommand(std::string_view name) {
  for (const Subcommand* subcommand : Subcommands()) {
    if (subcommand->name == name) return subcommand;
  }
  return nullptr;
}

}  // namespace zem::ctl
