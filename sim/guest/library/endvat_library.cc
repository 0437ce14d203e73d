#include "sim/guest/library/endvat_library.h"

#include <unistd.h>

#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/core/clock.h"
#include "sim/guest/library/callback_worker.h"

namespace zem::sim::guest {
namespace {

std::optional<uint32_t> Number(std::string_view text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

bool Between(const std::optional<uint32_t>& number, uint32_t least, uint32_t most) {
  return number && *number >= least && *number <= most;
}

}  // namespace

EndvatLibrary::EndvatLibrary(MakeLink make_link) : make_link_(std::move(make_link)) {}

EndvatLibrary::~EndvatLibrary() { (void)Unload(); }

ENDVAT_STATUS EndvatLibrary::Init(uint32_t version, const char* const* keys, const char* const* values,
                                  ENDVAT_LIB_INFO* out) {
  std::lock_guard lock(mutex_);
  if (state_ == State::kUnloaded) return ENDVAT_ERROR_ALREADY_UNLOADED;
  if (state_ != State::kNew) return ENDVAT_ERROR_ALREADY_SET;
  if (version == 0) return ENDVAT_ERROR_REQ_VER_TOO_OLD;
  if (version > 1) return ENDVAT_ERROR_REQ_VER_TOO_NEW;
  if (keys == nullptr || values == nullptr || out == nullptr) return ENDVAT_ERROR_INVALID_POINTER;
  std::string port;
  for (; *keys != nullptr; ++keys, ++values) {
    const std::string_view key = *keys;
    const std::string_view value = *values;
    const auto number = Number(value);
    if (key == "EndvatPort") {
      if (!Between(number, 1, 65535)) return ENDVAT_ERROR_INVALID_CONFIG;
      port = value;
    } else if (key == "EndvatWorkerThreads") {
      if (!Between(number, 1, 256)) return ENDVAT_ERROR_INVALID_CONFIG;
      worker_count_ = *number;
    } else if (key == "EndvatMaxEventsVM") {
      if (!number) return ENDVAT_ERROR_INVALID_CONFIG;
      most_undelivered_ = *number;
    } else if (key == "EndvatRequestTimeoutMs") {
      if (!number) return ENDVAT_ERROR_INVALID_CONFIG;
      timeout_ms_ = *number;
    } else if (key != "EndvatWritablePath" && key != "VendorID" && key != "EndvatApplianceMode") {
      return ENDVAT_ERROR_INVALID_CONFIG;
    }
  }
  if (port.empty() || worker_count_ == 0) return ENDVAT_ERROR_INVALID_CONFIG;
  link_ = make_link_(port, timeout_ms_);
  out->version = 1;
  std::strncpy(out->build, "simulated", sizeof(out->build));
  state_ = State::kInitialized;
  return ENDVAT_SUCCESS;
}

ENDVAT_STATUS EndvatLibrary::MayRegisterLocked(bool handler_given) const {
  if (const ENDVAT_STATUS status = Usable(); status != 0) return status;
  if (state_ == State::kEnabled) return ENDVAT_ERROR_WRONG_CALL_ORDER;
  return handler_given ? ENDVAT_SUCCESS : ENDVAT_ERROR_INVALID_POINTER;
}

ENDVAT_STATUS EndvatLibrary::Usable() const {
  if (state_ == State::kNew) return ENDVAT_ERROR_NOT_INITIALIZED;
  return state_ == State::kUnloaded ? ENDVAT_ERROR_ALREADY_UNLOADED : ENDVAT_SUCCESS;
}

ENDVAT_STATUS EndvatLibrary::EnableCallbacks() {
  std::lock_guard lock(mutex_);
  if (const ENDVAT_STATUS status = Usable(); status != 0) return status;
  if (state_ == State::kEnabled) return ENDVAT_ERROR_ALREADY_SET;
  if (handlers_.vm == nullptr) return ENDVAT_ERROR_WRONG_CALL_ORDER;
  for (uint32_t i = 0; i <= worker_count_; ++i) workers_.push_back(std::make_unique<CallbackWorker>(*this));
  state_ = State::kEnabled;
  // On a virtual clock two loads may be at the same time, and at the same address.
  static std::atomic<uint64_t> loads{0};
  const auto instance = ++loads ^ static_cast<uint64_t>(::getpid()) << 32 ^
                        static_cast<uint64_t>(Clock::Process().Now().time_since_epoch().count()) ^
                        reinterpret_cast<uint64_t>(this);
  link_->Start(instance, most_undelivered_, [this](const Event& event) { Take(event); });
  return ENDVAT_SUCCESS;
}

ENDVAT_STATUS EndvatLibrary::Unload() {
  if (CallbackWorker::Current().library == this) return ENDVAT_ERROR_WRONG_CALL_ORDER;
  {
    std::lock_guard lock(mutex_);
    if (const ENDVAT_STATUS status = Usable(); status != 0) return status;
    state_ = State::kUnloaded;
  }
  stop_.Stop();
  link_->Stop();
  for (const auto& worker : workers_) worker->Stop();
  return ENDVAT_SUCCESS;
}

void EndvatLibrary::Take(const Event& event) {
  const bool of_guest = event.kind != Event::Kind::kMux && event.kind != Event::Kind::kError &&
                        event.kind != Event::Kind::kPanic;
  if (event.kind == Event::Kind::kMux && event.type == 2) health_announced_ = true;
  workers_[of_guest ? event.guest % worker_count_ : worker_count_]->Push(event);
}

void EndvatLibrary::Violation(const std::string& text) {
  Question question;
  question.operation = Operation::kViolation;
  question.text = text;
  (void)link_->Ask(question);
}

bool EndvatLibrary::HoldBack(uint32_t delay_ms) {
  if (delay_ms == 0) return true;
  const bool in_time = delay_ms <= timeout_ms_;
  return !stop_.WaitFor(std::chrono::milliseconds(in_time ? delay_ms : timeout_ms_)) && in_time;
}

ENDVAT_STATUS EndvatLibrary::CheckContext(Needs needs, ENDVAT_HANDLE handle, Question* question) {
  if (const ENDVAT_STATUS status = Usable(); status != 0) {
    if (state_ == State::kUnloaded) Violation("a call after the unload");
    return status;
  }
  if (needs == Needs::kHealth) return health_announced_ ? ENDVAT_SUCCESS : ENDVAT_ERROR_WRONG_CONTEXT;
  const CallbackContext& context = CallbackWorker::Current();
  const Event& event = context.event;
  if (context.library != this) {
    Violation(std::string(OperationName(question->operation)) + " outside a callback");
    return ENDVAT_ERROR_WRONG_CONTEXT;
  }
  if (needs == Needs::kServiceVm)
    return event.kind == Event::Kind::kMux && event.type >= 3 ? ENDVAT_SUCCESS : ENDVAT_ERROR_WRONG_CONTEXT;
  if (context.data == nullptr) return ENDVAT_ERROR_WRONG_CONTEXT;
  if (needs != Needs::kGuest && handle != context.handle) {
    Violation(std::string(OperationName(question->operation)) + " with the handle of another callback");
    return ENDVAT_ERROR_INVALID_HANDLE;
  }
  if (needs == Needs::kNetworkEvent && event.kind != Event::Kind::kNetwork) return ENDVAT_ERROR_WRONG_CONTEXT;
  question->guest = event.guest;
  question->event = event.number;
  return ENDVAT_SUCCESS;
}

ENDVAT_STATUS EndvatLibrary::Query(Needs needs, ENDVAT_HANDLE handle, Question question, void* buffer,
                                   uint32_t* length) {
  if (const ENDVAT_STATUS status = CheckContext(needs, handle, &question); status != 0) return status;
  if (length == nullptr) return ENDVAT_ERROR_INVALID_POINTER;
  question.capacity = buffer == nullptr ? 0 : *length;
  const auto answer = link_->Ask(question);
  if (!answer) return ENDVAT_ERROR_VM_DISCONNECTED;
  if (!HoldBack(answer->delay_ms)) return ENDVAT_ERROR_TIMEOUT;
  const auto size = static_cast<uint32_t>(answer->buffer.bytes.size());
  if (answer->status != 0) {
    *length = size;
    return answer->status;
  }
  if (question.capacity < size) {
    *length = size;
    return ENDVAT_ERROR_BUFFER_TOO_SMALL;
  }
  *length = size;
  if (buffer != nullptr) answer->buffer.CopyTo(static_cast<char*>(buffer));
  return ENDVAT_SUCCESS;
}

ENDVAT_STATUS EndvatLibrary::SetData(ENDVAT_HANDLE handle, void* data) {
  Question question;
  question.operation = Operation::kSetData;
  if (const ENDVAT_STATUS status = CheckContext(Needs::kEvent, handle, &question); status != 0) return status;
  const CallbackContext& context = CallbackWorker::Current();
  question.number = context.event.run;
  const auto answer = link_->Ask(question);
  if (!answer) return ENDVAT_ERROR_VM_DISCONNECTED;
  if (answer->status == 0) *context.data = data;
  return answer->status;
}

ENDVAT_STATUS EndvatLibrary::GetMask(uint64_t* mask) {
  Question question;
  question.operation = Operation::kGetMask;
  if (const ENDVAT_STATUS status = CheckContext(Needs::kGuest, nullptr, &question); status != 0)
    return status;
  const auto answer = link_->Ask(question);
  if (!answer) return ENDVAT_ERROR_VM_DISCONNECTED;
  *mask = answer->number;
  return answer->status;
}

ENDVAT_STATUS EndvatLibrary::SetMask(uint64_t mask) {
  Question question;
  question.operation = Operation::kSetMask;
  if (const ENDVAT_STATUS status = CheckContext(Needs::kGuest, nullptr, &question); status != 0)
    return status;
  question.number = mask;
  const auto answer = link_->Ask(question);
  return answer ? answer->status : ENDVAT_ERROR_VM_DISCONNECTED;
}

ENDVAT_STATUS EndvatLibrary::ConfigureMux(const void* buffer, uint32_t length) {
  if (const ENDVAT_STATUS status = Usable(); status != 0) return status;
  if (buffer == nullptr && length > 0) return ENDVAT_ERROR_INVALID_POINTER;
  Question question;
  question.operation = Operation::kConfigureMux;
  question.capacity = 1;
  question.text.assign(static_cast<const char*>(buffer), length);
  const auto answer = link_->Ask(question);
  if (!answer) return ENDVAT_MUX_ERROR_UNIX_SOCKET;
  return HoldBack(answer->delay_ms) ? answer->status : ENDVAT_MUX_ERROR_UNIX_SOCKET;
}

}  // namespace zem::sim::guest
