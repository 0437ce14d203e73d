#include "app/zema/app/set_up_state.h"

#include <algorithm>
#include <array>
#include <string>

#include "app/zema/app/realization.h"

namespace zem::Tarvik {
namespace {

struct SetUpFailure {
  int result;
  const char* fault;
  const char* heals;
};
constexpr std::array kSetUpFailures = {
    SetUpFailure{zema::Realization::kHostUnknown, "the host does not tell its version",
                 "look whether the host's own commands work"},
    SetUpFailure{zema::Realization::kBadOptions, "the options file zema.json is missing or cannot be read",
                 "put a good /etc/orlane/zem-tarvik/zema.json in its place"},
    SetUpFailure{zema::Realization::kNoProxy, "the host's management script does not start",
                 "look for the script's process and its last lines in the log"},
    SetUpFailure{zema::Realization::kNoSwitchHandler, "the thread for the host's requests does not start",
                 "look for a limit on threads or memory"},
    SetUpFailure{zema::Realization::kNoWorkers, "the threads of the realization do not start",
                 "look for a limit on threads or memory; the log tells more"},
    SetUpFailure{zema::Realization::kNoSwitchLibrary, "the host's switch library cannot be loaded",
                 "install the library libklnPublic.so; the log tells what is missing of it"},
    SetUpFailure{zema::Realization::kClearMode, "the options ask to clear the host",
                 "take \"clear\" out of the options"},
};

}  // namespace

PartState SetUpState(int attempts, int last_failure, TimePoint next_attempt) {
  PartState state{"realization", "is being set up", {}};
  const auto failure =
      std::find_if(kSetUpFailures.begin(), kSetUpFailures.end(),
                   [last_failure](const SetUpFailure& f) { return f.result == last_failure; });
  if (last_failure != zema::Realization::kDone && failure != kSetUpFailures.end()) {
    state.fault = std::string("not set up: ") + failure->fault;
    state.heals = std::string(failure->heals) + "; ";
  }
  if (next_attempt == TimePoint()) {
    state.heals += "attempt " + std::to_string(attempts) + " runs";
  } else {
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(next_attempt - Clock::Process().Now());
    state.heals += "the next attempt is in " + std::to_string(std::max<int64_t>(0, left.count())) + " s";
  }
  return state;
}

}  // namespace zem::Tarvik
