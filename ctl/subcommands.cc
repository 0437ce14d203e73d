#include <array>

#include "ctl/subcommand.h"

namespace zem::ctl {

extern const Subcommand kStatus;
extern const Subcommand kVerticals;
extern const Subcommand kTasks;
extern const Subcommand kQueues;
extern const Subcommand kOptions;
extern const Subcommand kLog;

namespace {

constexpr std::array kSubcommands = {&kStatus, &kVerticals, &kTasks, &kQueues, &kOptions, &kLog};

}  // namespace

std::span<const Subcommand* const> Subcommands() { return kSubcommands; }

const Subcommand* FindSubcommand(std::string_view name) {
  for (const Subcommand* subcommand : kSubcommands) {
    if (subcommand->name == name) return subcommand;
  }
  return nullptr;
}

}  // namespace zem::ctl
