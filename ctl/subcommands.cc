#include <array>

#include "ctl/subcommand.h"

namespace zem::ctl {

extern const Subcommand kStatus;
extern const Subcommand kVerticals;
extern const Subcommand kSwitches;
extern const Subcommand kPorts;
extern const Subcommand kVifs;
extern const Subcommand kTasks;
extern const Subcommand kQueues;
extern const Subcommand kGuests;
extern const Subcommand kAlarms;
extern const Subcommand kCaptures;
extern const Subcommand kInventory;
extern const Subcommand kStore;
extern const Subcommand kLog;
extern const Subcommand kOptions;
extern const Subcommand kMetrics;
extern const Subcommand kWatch;
extern const Subcommand kBundle;
extern const Subcommand kWhy;
extern const Subcommand kReport;

namespace {

constexpr std::array kSubcommands = {
    &kStatus,  &kVerticals, &kSwitches, &kPorts,     &kVifs,   &kTasks, &kQueues,
    &kGuests,  &kAlarms,    &kCaptures, &kInventory, &kStore,  &kLog,   &kOptions,
    &kMetrics, &kWatch,     &kBundle,   &kWhy,       &kReport,
};

}  // namespace

std::span<const Subcommand* const> Subcommands() { return kSubcommands; }

const Subcommand* FindSubcommand(std::string_view name) {
  for (const Subcommand* subcommand : kSubcommands) {
    if (subcommand->name == name) return subcommand;
  }
  return nullptr;
}

}  // namespace zem::ctl
