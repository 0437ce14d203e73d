#include "sim/guest/world/guest_world.h"

#include <sys/stat.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "platform/endvat/endvat.h"
#include "proto/context/mux_config.pb.h"
#include "sim/guest/world/guest_buffers.h"

namespace zem::sim::guest {
namespace {

// The bits of a mask that let a network event of each type pass, and those of the protocols.
constexpr std::array<uint64_t, 6> kTypeBits = {0x48, 0x10, 0x120, 0x2, 0x4, 0x80};
constexpr std::array<uint64_t, 3> kProtocolBits = {0x200, 0x400, 0x800};

constexpr size_t kMostKept = 1000;

[[noreturn]] void Refuse(const std::string& why) { throw std::invalid_argument(why); }

bool Changes(Operation operation) {
  return operation == Operation::kSetData || operation == Operation::kSetMask ||
         operation == Operation::kConfigureMux;
}

Answer Status(uint32_t status) {
  Answer answer;
  answer.status = status;
  return answer;
}

Answer With(Buffer buffer) {
  Answer answer;
  answer.buffer = std::move(buffer);
  return answer;
}

}  // namespace

GuestWorld::GuestWorld(std::string folder) : folder_(std::move(folder)) { ::mkdir(folder_.c_str(), 0755); }

GuestWorld::~GuestWorld() = default;

uint64_t GuestWorld::Attach(uint64_t instance, uint32_t most_undelivered, Sink sink) {
  std::lock_guard lock(mutex_);
  happenings_.clear();
  for (auto& [name, guest] : guests_) {
    guest.undelivered = 0;
    if (instance == instance_) continue;
    guest.mask = 0;
    guest.data_run = 0;
  }
  if (instance != instance_) missed_.clear();
  instance_ = instance;
  most_undelivered_ = most_undelivered;
  sink_ = std::move(sink);
  mux_.attached = true;
  EmitLocked({.kind = Event::Kind::kMux, .type = 0});
  for (const Event& event : std::exchange(missed_, {})) EmitLocked(event);
  for (const auto& [name, guest] : guests_) {
    if (guest.on) EmitLocked({.kind = Event::Kind::kPowerOn, .guest = guest.id, .run = guest.run});
  }
  return ++last_attachment_;
}

void GuestWorld::Detach(uint64_t attachment) {
  std::lock_guard lock(mutex_);
  if (attachment != last_attachment_) return;
  sink_ = nullptr;
  mux_.attached = false;
}

Answer GuestWorld::Ask(const Question& question) {
  std::lock_guard lock(mutex_);
  if (question.operation == Operation::kDone) {
    DoneLocked(question);
    return {};
  }
  if (question.operation == Operation::kViolation) {
    if (violations_.size() < kMostKept) violations_.push_back(question.text);
    return {};
  }
  ++questions_[OperationName(question.operation)];
  const Guest* const guest = FindId(question.guest);
  const std::string name = guest == nullptr ? std::string() : guest->name;
  Answer answer;
  if (Changes(question.operation)) {
    // What is refused changes nothing.
    faults_.Spoil(question, name, &answer);
    if (answer.status != 0) return answer;
    const uint32_t delay = answer.delay_ms;
    answer = AnswerLocked(question);
    answer.delay_ms = delay;
    return answer;
  }
  answer = AnswerLocked(question);
  faults_.Spoil(question, name, &answer);
  const bool for_groups =
      question.operation == Operation::kSessionInfo
          ? question.kind == ENDVAT_SESSION_GROUPS
          : question.operation == Operation::kProcessInfo && question.kind == ENDVAT_PROCESS_GROUPS;
  if (for_groups && answer.status != 0) ++refused_groups_;
  return answer;
}

Answer GuestWorld::AnswerLocked(const Question& question) {
  switch (question.operation) {
    case Operation::kSolutionId:
      return With(TextBuffer(solution_));
    case Operation::kHealthStatus:
      return With(TextBuffer(mux_.health));
    case Operation::kConfigureMux: {
      orlane::zem::ouvi::MuxConfigMsg message;
      if (!message.ParseFromString(question.text)) return Status(ENDVAT_MUX_ERROR_PARSING_CONFIG);
      if (mux_.configurations.size() == kMostKept) mux_.configurations.erase(mux_.configurations.begin());
      mux_.configurations.push_back(question.text);
      return {};
    }
    default:
      break;
  }
  Guest* const guest = FindId(question.guest);
  if (guest == nullptr || !guest->on) return Status(ENDVAT_ERROR_VM_DISCONNECTED);
  return AnswerOfGuestLocked(*guest, question);
}

Answer GuestWorld::AnswerOfGuestLocked(Guest& guest, const Question& question) {
  switch (question.operation) {
    case Operation::kVmId:
      return With(VmIdBuffer(guest));
    case Operation::kLogonSessions:
      if (guest.ready_in > 0) return Status(ENDVAT_ERROR_GUEST_NOT_READY);
      if (!guest.windows()) return Status(ENDVAT_ERROR_WRONG_GUEST_OS);
      return With(LogonSessionsBuffer(guest));
    case Operation::kSystemInfo:
      if (question.kind < ENDVAT_SYSTEM_INFO_OS || question.kind > ENDVAT_SYSTEM_INFO_OS_EX)
        return Status(ENDVAT_ERROR_INVALID_PARAMETER);
      if (guest.old_agent) return Status(ENDVAT_ERROR_NOT_SUPPORTED);
      if (question.kind == ENDVAT_SYSTEM_INFO_OS) return With(OsBuffer(guest));
      if (question.kind == ENDVAT_SYSTEM_INFO_OS_EX) return With(ExtendedOsBuffer(guest));
      if (guest.ready_in > 0) return Status(ENDVAT_ERROR_GUEST_NOT_READY);
      return With(IntrospectionBuffer(guest));
    case Operation::kSessionInfo: {
      if (question.kind != ENDVAT_SESSION_GROUPS) return Status(ENDVAT_ERROR_INVALID_PARAMETER);
      const auto session = guest.sessions.find(static_cast<uint32_t>(question.number));
      if (session == guest.sessions.end()) return Status(ENDVAT_ERROR_NOT_FOUND);
      return With(GroupsBuffer(guest, guest.users.at(session->second.user).groups));
    }
    case Operation::kProcessInfo: {
      const auto process = guest.processes.find(question.number);
      if (process == guest.processes.end() || process->second.ctime != question.number2)
        return Status(ENDVAT_ERROR_NOT_FOUND);
      if (process->second.ended) return Status(ENDVAT_ERROR_PROCESS_IS_TERMINATING);
      if (question.kind == ENDVAT_PROCESS_HASH) return With(HashBuffer(process->second));
      if (question.kind != ENDVAT_PROCESS_GROUPS) return Status(ENDVAT_ERROR_INVALID_PARAMETER);
      return With(GroupsBuffer(guest, guest.users.at(process->second.user).groups));
    }
    case Operation::kSidInfo:
    case Operation::kUidInfo:
      if (guest.windows() != (question.operation == Operation::kSidInfo))
        return Status(ENDVAT_ERROR_WRONG_GUEST_OS);
      for (const auto& [key, user] : guest.users) {
        if (guest.windows() ? user.sid == question.text : user.uid == question.number)
          return With(UserBuffer(guest, user));
      }
      return Status(ENDVAT_ERROR_NOT_FOUND);
    case Operation::kSetData:
      if (guest.data_run == question.number) violations_.push_back("data set twice for " + guest.name);
      guest.data_run = question.number;
      return {};
    case Operation::kGetMask: {
      Answer answer;
      answer.number = guest.mask;
      return answer;
    }
    case Operation::kSetMask:
      guest.mask = question.number;
      return {};
    case Operation::kNetworkEvent:
    case Operation::kNetworkEventInformation:
    case Operation::kSystemEventInformation:
      return AnswerOfEventLocked(guest, question);
    default:
      return Status(ENDVAT_ERROR_NOT_SUPPORTED);
  }
}

Answer GuestWorld::AnswerOfEventLocked(Guest& guest, const Question& question) {
  const auto found = happenings_.find(question.event);
  if (found == happenings_.end() || found->second.guest != guest.id)
    return Status(ENDVAT_ERROR_INVALID_HANDLE);
  const Happening& happening = found->second;
  if (question.operation == Operation::kSystemEventInformation) {
    if (happening.network) return Status(ENDVAT_ERROR_WRONG_CONTEXT);
    if (question.kind != ENDVAT_SYSTEM_EVENT_SESSION) return Status(ENDVAT_ERROR_INVALID_PARAMETER);
    return With(SystemEventBuffer(guest, happening));
  }
  if (!happening.network) return Status(ENDVAT_ERROR_WRONG_CONTEXT);
  if (question.operation == Operation::kNetworkEvent) return With(NetworkEventBuffer(guest, happening));
  const auto process = guest.processes.find(happening.process.pid);
  if (process != guest.processes.end() && process->second.ended)
    return Status(ENDVAT_ERROR_PROCESS_IS_TERMINATING);
  if (question.kind == ENDVAT_NETWORK_EVENT_PROCESS) return With(ProcessInfoBuffer(guest, happening.process));
  if (question.kind == ENDVAT_NETWORK_EVENT_PROCESS_HASH) return With(HashBuffer(happening.process));
  return Status(ENDVAT_ERROR_INVALID_PARAMETER);
}

void GuestWorld::DoneLocked(const Question& question) {
  const auto found = happenings_.find(question.event);
  if (found == happenings_.end()) return;
  if (Guest* const guest = FindId(found->second.guest); guest != nullptr && found->second.network) {
    if (guest->undelivered > 0) --guest->undelivered;
    ++guest->counts.delivered;
    if (question.number != 1) ++guest->counts.refused;
  }
  happenings_.erase(found);
}

void GuestWorld::EmitLocked(const Event& event) {
  if (sink_) sink_(event);
}

void GuestWorld::PowerOnLocked(Guest& guest) {
  guest.on = true;
  guest.run = ++last_run_;
  guest.mask = 0;
  guest.data_run = 0;
  guest.undelivered = 0;
  EmitLocked({.kind = Event::Kind::kPowerOn, .guest = guest.id, .run = guest.run});
}

void GuestWorld::PowerOffLocked(Guest& guest) {
  guest.on = false;
  guest.sessions.clear();
  guest.processes.clear();
  guest.sockets.clear();
  const Event event{.kind = Event::Kind::kPowerOff, .guest = guest.id, .run = guest.run};
  if (!sink_) missed_.push_back(event);
  EmitLocked(event);
}

Guest& GuestWorld::Find(const std::string& name) {
  const auto found = guests_.find(name);
  if (found == guests_.end()) Refuse("no such guest: " + name);
  return found->second;
}

Guest* GuestWorld::FindId(uint64_t id) {
  for (auto& [name, guest] : guests_) {
    if (guest.id == id) return &guest;
  }
  return nullptr;
}

Guest& GuestWorld::Running(const std::string& name) {
  Guest& guest = Find(name);
  if (!guest.on) Refuse("the guest is off: " + name);
  return guest;
}

void GuestWorld::AddGuest(Guest guest, const std::string& config_text) {
  std::lock_guard lock(mutex_);
  if (guests_.count(guest.name) != 0) Refuse("there is such a guest: " + guest.name);
  guest.id = ++last_id_;
  guest.bios_id.resize(16, static_cast<char>(guest.id));
  guest.config_path = folder_ + "/" + guest.name + ".conf";
  std::ofstream(guest.config_path, std::ios::binary) << config_text;
  guests_.emplace(guest.name, std::move(guest));
}

void GuestWorld::RemoveGuest(const std::string& name) {
  std::lock_guard lock(mutex_);
  Guest& guest = Find(name);
  if (guest.on) PowerOffLocked(guest);
  guests_.erase(name);
}

void GuestWorld::PowerOn(const std::string& name) {
  std::lock_guard lock(mutex_);
  Guest& guest = Find(name);
  if (guest.on) Refuse("the guest is on: " + name);
  PowerOnLocked(guest);
}

void GuestWorld::PowerOff(const std::string& name) {
  std::lock_guard lock(mutex_);
  PowerOffLocked(Running(name));
}

void GuestWorld::SetUser(const std::string& guest, const std::string& key, User user) {
  std::lock_guard lock(mutex_);
  Find(guest).users[key] = std::move(user);
}

uint32_t GuestWorld::Logon(const std::string& name, Session session) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  if (guest.users.count(session.user) == 0) Refuse("no such user: " + session.user);
  if (session.id == 0) session.id = guest.sessions.empty() ? 1 : guest.sessions.rbegin()->first + 1;
  if (!guest.sessions.emplace(session.id, session).second)
    Refuse("there is such a session: " + std::to_string(session.id));
  SystemLocked(guest, static_cast<uint32_t>(session.kind), session);
  return session.id;
}

void GuestWorld::Logoff(const std::string& name, uint32_t id) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const auto found = guest.sessions.find(id);
  if (found == guest.sessions.end()) Refuse("no such session: " + std::to_string(id));
  const Session session = found->second;
  guest.sessions.erase(found);
  SystemLocked(guest, static_cast<uint32_t>(session.kind) + 1, session);
}

void GuestWorld::SetSession(const std::string& name, uint32_t id, bool active) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const auto found = guest.sessions.find(id);
  if (found == guest.sessions.end()) Refuse("no such session: " + std::to_string(id));
  if (found->second.active == active) Refuse("the session is in that state");
  found->second.active = active;
  SystemLocked(guest, active ? 2 : 3, found->second);
}

void GuestWorld::StartProcess(const std::string& name, Process process) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  if (guest.users.count(process.user) == 0) Refuse("no such user: " + process.user);
  const auto pid = process.pid;
  guest.processes[pid] = std::move(process);
}

void GuestWorld::EndProcess(const std::string& name, uint64_t pid) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const auto found = guest.processes.find(pid);
  if (found == guest.processes.end()) Refuse("no such process: " + std::to_string(pid));
  found->second.ended = true;
}

Happening GuestWorld::HappeningLocked(const Guest& guest, const Socket& socket) const {
  const auto process = guest.processes.find(socket.pid);
  if (process == guest.processes.end() || process->second.ended)
    Refuse("no such process: " + std::to_string(socket.pid));
  Happening happening;
  happening.guest = guest.id;
  happening.network = true;
  happening.socket = socket;
  happening.process = process->second;
  happening.user = guest.users.at(process->second.user);
  return happening;
}

uint64_t GuestWorld::Connect(const std::string& name, Socket socket) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const Happening happening = HappeningLocked(guest, socket);
  socket.id = ++last_id_;
  guest.sockets[socket.id] = socket;
  NetworkLocked(guest, 0, happening);
  NetworkLocked(guest, 1, happening);
  return socket.id;
}

uint64_t GuestWorld::Listen(const std::string& name, Socket socket) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const Happening happening = HappeningLocked(guest, socket);
  socket.id = ++last_id_;
  guest.sockets[socket.id] = socket;
  NetworkLocked(guest, 3, happening);
  return socket.id;
}

void GuestWorld::Close(const std::string& name, uint64_t id) { Unlisten(name, id, 2); }

void GuestWorld::Unlisten(const std::string& name, uint64_t id, uint32_t type) {
  std::lock_guard lock(mutex_);
  Guest& guest = Running(name);
  const auto found = guest.sockets.find(id);
  if (found == guest.sockets.end()) Refuse("no such socket: " + std::to_string(id));
  const Happening happening = HappeningLocked(guest, found->second);
  guest.sockets.erase(found);
  NetworkLocked(guest, type, happening);
}

void GuestWorld::NetworkLocked(Guest& guest, uint32_t type, const Happening& happening) {
  ++guest.counts.offered;
  if ((guest.mask & kTypeBits[type]) == 0 || (guest.mask & kProtocolBits[happening.socket.protocol]) == 0) {
    ++guest.counts.filtered;
    return;
  }
  if (!sink_ || guest.undelivered >= most_undelivered_) {
    ++guest.counts.dropped;
    return;
  }
  ++guest.undelivered;
  happenings_[++last_event_] = happening;
  EmitLocked({.kind = Event::Kind::kNetwork,
              .guest = guest.id,
              .run = guest.run,
              .number = last_event_,
              .type = type});
}

void GuestWorld::SystemLocked(Guest& guest, uint32_t type, const Session& session) {
  if (!sink_) return;
  Happening& happening = happenings_[++last_event_];
  happening.guest = guest.id;
  happening.session = session;
  happening.user = guest.users.at(session.user);
  EmitLocked({.kind = Event::Kind::kSystem,
              .guest = guest.id,
              .run = guest.run,
              .number = last_event_,
              .type = type});
}

void GuestWorld::Tick(const std::string& name) {
  std::lock_guard lock(mutex_);
  if (!name.empty()) Running(name);
  for (auto& [key, guest] : guests_) {
    if (!guest.on || (!name.empty() && key != name)) continue;
    if (guest.ready_in > 0) --guest.ready_in;
    EmitLocked({.kind = Event::Kind::kTimer, .guest = guest.id, .run = guest.run});
  }
}

void GuestWorld::Reannounce() {
  std::lock_guard lock(mutex_);
  for (auto& [name, guest] : guests_) {
    if (!guest.on) continue;
    const uint64_t old_run = guest.run;
    PowerOnLocked(guest);
    EmitLocked({.kind = Event::Kind::kPowerOff, .guest = guest.id, .run = old_run});
  }
}

void GuestWorld::ServiceVm(const std::string& id, bool up) {
  std::lock_guard lock(mutex_);
  mux_.service_vms[id] = up;
  solution_ = id;
  EmitLocked({.kind = Event::Kind::kMux, .type = up ? 3u : 4u});
}

void GuestWorld::ReportHealth(const std::string& text) {
  std::lock_guard lock(mutex_);
  mux_.health = text;
  EmitLocked({.kind = Event::Kind::kMux, .type = 2});
}

void GuestWorld::Raise(Event::Kind kind, uint32_t type) {
  std::lock_guard lock(mutex_);
  EmitLocked({.kind = kind, .type = type});
}

void GuestWorld::SetFault(Fault fault) {
  std::lock_guard lock(mutex_);
  faults_.Add(std::move(fault));
}

void GuestWorld::ClearFaults() {
  std::lock_guard lock(mutex_);
  faults_.Clear();
}

GuestWorld::Mux GuestWorld::mux() const {
  std::lock_guard lock(mutex_);
  return mux_;
}

std::vector<Guest> GuestWorld::guests() const {
  std::lock_guard lock(mutex_);
  std::vector<Guest> guests;
  for (const auto& [name, guest] : guests_) guests.push_back(guest);
  return guests;
}

Guest GuestWorld::guest(const std::string& name) const {
  std::lock_guard lock(mutex_);
  const auto found = guests_.find(name);
  if (found == guests_.end()) Refuse("no such guest: " + name);
  return found->second;
}

std::map<std::string, uint64_t> GuestWorld::questions() const {
  std::lock_guard lock(mutex_);
  return questions_;
}

uint64_t GuestWorld::refused_groups() const {
  std::lock_guard lock(mutex_);
  return refused_groups_;
}

std::vector<std::string> GuestWorld::violations() const {
  std::lock_guard lock(mutex_);
  return violations_;
}

}  // namespace zem::sim::guest
