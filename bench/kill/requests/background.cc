#include "bench/kill/requests/background.h"

#include <cjson/cJSON.h>

#include <exception>
#include <utility>

#include "sim/scenario/control_client.h"
#include "sim/scenario/node_process.h"

namespace zem::bench {
namespace {

constexpr auto kPause = std::chrono::milliseconds(10);

class ControlledNode : public Background::Node {
 public:
  ControlledNode(const std::string& directory, const std::atomic<bool>& cancelled)
      : client_(directory + "/control"), cancelled_(cancelled) {}

  std::string Try(const std::string& command, sim::Json* result) override {
    const sim::Json answer(cJSON_Parse(client_.Execute(command).c_str()));
    if (cJSON_IsTrue(sim::At(answer.get(), "ok")) == 0) {
      std::string reason = sim::TextAt(answer.get(), "error");
      return reason.empty() ? "no answer of the node" : reason;
    }
    if (result != nullptr) result->reset(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
    return {};
  }

  std::string Until(const std::string& command, const std::function<bool(const cJSON*)>& good) override {
    for (;;) {
      sim::Json result;
      if (Try(command, &result).empty() && good(result.get())) return {};
      if (cancelled_) return "cancelled";
      SleepFor(kPause);
    }
  }

 private:
  sim::ControlClient client_;
  const std::atomic<bool>& cancelled_;
};

}  // namespace

Background::Background(const std::string& directory, Work work) {
  thread_ = NativeThread([this, directory, work = std::move(work)] {
    try {
      ControlledNode node(directory, cancelled_);
      outcome_ = work(node);
    } catch (const std::exception& error) {
      outcome_ = error.what();
    }
    done_ = true;
  });
}

Background::~Background() { End(); }

std::string Background::End() {
  cancelled_ = true;
  if (thread_.joinable()) thread_.Join();
  return outcome_;
}

}  // namespace zem::bench
