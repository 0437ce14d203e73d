#include "sim/guest/library/callback_worker.h"

#include "platform/core/clock.h"
#include "sim/guest/library/endvat_library.h"

namespace zem::sim::guest {
namespace {

constexpr std::chrono::seconds kLongestCallback{1};

}  // namespace

CallbackWorker::CallbackWorker(EndvatLibrary& library) : library_(library) {
  thread_ = NativeThread({.name = "endvat"}, [this] { Run(); });
}

CallbackWorker::~CallbackWorker() { Stop(); }

CallbackContext& CallbackWorker::Current() {
  thread_local CallbackContext context;
  return context;
}

void CallbackWorker::Push(const Event& event) {
  std::lock_guard lock(mutex_);
  if (event.kind == Event::Kind::kTimer && !waiting_ticks_.insert(event.run).second) return;
  queue_.push_back(event);
  changed_.NotifyOne();
}

void CallbackWorker::Stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.NotifyAll();
  }
  if (thread_.joinable()) thread_.Join();
}

void CallbackWorker::Run() {
  for (;;) {
    Event event;
    {
      std::unique_lock lock(mutex_);
      changed_.Wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      event = queue_.front();
      queue_.pop_front();
      if (event.kind == Event::Kind::kTimer) waiting_ticks_.erase(event.run);
    }
    Deliver(event);
  }
}

void CallbackWorker::Deliver(const Event& event) {
  switch (event.kind) {
    case Event::Kind::kMux:
    case Event::Kind::kError:
    case Event::Kind::kPanic:
      return Call(event, nullptr);
    case Event::Kind::kPowerOn:
      // A guest that was running before the multiplexer went is announced again, but not to the caller.
      if (!runs_.emplace(event.run, nullptr).second) return;
      break;
    default:
      break;
  }
  const auto run = runs_.find(event.run);
  if (run == runs_.end()) return;
  Call(event, &run->second);
  if (event.kind == Event::Kind::kPowerOff) runs_.erase(run);
}

void CallbackWorker::Call(const Event& event, void** data) {
  const EndvatLibrary::Handlers& handlers = library_.handlers_;
  CallbackContext& context = Current();
  context.library = &library_;
  context.event = event;
  context.handle = reinterpret_cast<ENDVAT_HANDLE>(++library_.last_handle_);
  context.data = data;
  uint32_t verdict = 1;
  const auto begin = Clock::Process().Now();
  switch (event.kind) {
    case Event::Kind::kPowerOn:
    case Event::Kind::kPowerOff:
      handlers.vm(event.kind == Event::Kind::kPowerOn ? 0 : 1, context.handle, *data);
      break;
    case Event::Kind::kNetwork:
      if (handlers.network != nullptr) verdict = handlers.network(event.type, context.handle, *data);
      break;
    case Event::Kind::kSystem:
      if (handlers.system != nullptr) handlers.system(event.type, context.handle, *data);
      break;
    case Event::Kind::kTimer:
      if (handlers.timer != nullptr) handlers.timer(*data);
      break;
    case Event::Kind::kMux:
      if (handlers.mux != nullptr) handlers.mux(event.type);
      break;
    case Event::Kind::kError:
      if (handlers.error != nullptr) handlers.error(event.type);
      break;
    case Event::Kind::kPanic:
      if (handlers.panic != nullptr) handlers.panic();
      break;
  }
  // By the machine's clock: a fast one makes a second of the caller's being kept from the processor.
  const Clock& clock = Clock::Process();
  if (clock.OnMachine(clock.Now()) - clock.OnMachine(begin) > kLongestCallback)
    library_.Violation("a callback took over a second");
  context.library = nullptr;
  if (event.number == 0) return;
  Question done;
  done.operation = Operation::kDone;
  done.guest = event.guest;
  done.event = event.number;
  done.number = verdict;
  (void)library_.link_->Ask(done);
}

}  // namespace zem::sim::guest
