#include "app/ctxteng/idsevents/ids_evt_engine.h"

namespace IdsEvtEng {

struct IdsEvtEngine::Parts {
  IdsParam param;
  EngineSurroundings surroundings;
};

IdsEvtEngine::IdsEvtEngine(const IdsParam& param, EngineSurroundings surroundings)
    : parts_(new Parts{param, std::move(surroundings)}) {}

IdsEvtEngine::~IdsEvtEngine() = default;

int IdsEvtEngine::Start() {
  parts_->surroundings.notify_started();
  return 0;
}

void IdsEvtEngine::Stop() {}

}  // namespace IdsEvtEng
