#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/guest/wire/messages.h"
#include "sim/guest/world/faults.h"
#include "sim/guest/world/guest.h"

namespace zem::sim::guest {

/// The guests of a host and the multiplexer that gathers their events.  Events come only out of changes of
/// the guests; the library's questions are answered from their state.
///
/// Threads: all operations from any thread.
class GuestWorld {
 public:
  /// Receives events in order, with the world's lock held; it may not call back.
  using Sink = std::function<void(const Event&)>;

  /// The guests' configuration files are written below `folder`.
  explicit GuestWorld(std::string folder);
  ~GuestWorld();
  GuestWorld(const GuestWorld&) = delete;
  GuestWorld& operator=(const GuestWorld&) = delete;

  /// The library's side.  A new sink replaces the one before; it gets a power-on of each guest that runs.
  /// `instance` names the library's load: the masks of guests last as long as it.
  uint64_t Attach(uint64_t instance, uint32_t most_undelivered, Sink sink);
  void Detach(uint64_t attachment);
  Answer Ask(const Question& question);

  /// The operator's side.  What cannot be done throws std::invalid_argument with the reason.
  void AddGuest(Guest guest, const std::string& config_text);
  void RemoveGuest(const std::string& name);
  void PowerOn(const std::string& name);
  void PowerOff(const std::string& name);
  void SetUser(const std::string& guest, const std::string& key, User user);
  /// 0 chooses a session id.
  uint32_t Logon(const std::string& guest, Session session);
  void Logoff(const std::string& guest, uint32_t session);
  void SetSession(const std::string& guest, uint32_t session, bool active);
  void StartProcess(const std::string& guest, Process process);
  void EndProcess(const std::string& guest, uint64_t pid);
  uint64_t Connect(const std::string& guest, Socket socket);
  void Close(const std::string& guest, uint64_t socket);
  uint64_t Listen(const std::string& guest, Socket socket);
  /// `type` is 4 or 5.
  void Unlisten(const std::string& guest, uint64_t socket, uint32_t type);
  /// A timer tick of the guest, of every one when the name is empty.
  void Tick(const std::string& guest);
  /// Announces every running guest again as a new run, and ends the old ones.
  void Reannounce();
  void ServiceVm(const std::string& id, bool up);
  void ReportHealth(const std::string& text);
  /// An event that concerns no guest: kMux of any type, kError with its status, kPanic.
  void Raise(Event::Kind kind, uint32_t type);
  void SetFault(Fault fault);
  void ClearFaults();

  struct Mux {
    bool attached = false;
    std::vector<std::string> configurations;
    std::map<std::string, bool> service_vms;
    std::string health;
  };
  Mux mux() const;
  std::vector<Guest> guests() const;
  Guest guest(const std::string& name) const;
  /// How often each question was asked.
  std::map<std::string, uint64_t> questions() const;
  std::vector<std::string> violations() const;
  /// Questions for a user's groups that had no answer, such as those of a session that had ended already.
  uint64_t refused_groups() const;

 private:
  Guest& Find(const std::string& name);
  Guest* FindId(uint64_t id);
  Guest& Running(const std::string& name);
  void EmitLocked(const Event& event);
  void PowerOnLocked(Guest& guest);
  void PowerOffLocked(Guest& guest);
  Happening HappeningLocked(const Guest& guest, const Socket& socket) const;
  void NetworkLocked(Guest& guest, uint32_t type, const Happening& happening);
  void SystemLocked(Guest& guest, uint32_t type, const Session& session);
  Answer AnswerLocked(const Question& question);
  Answer AnswerOfGuestLocked(Guest& guest, const Question& question);
  Answer AnswerOfEventLocked(Guest& guest, const Question& question);
  void DoneLocked(const Question& question);

  const std::string folder_;
  mutable std::mutex mutex_;  // guards what follows
  std::map<std::string, Guest> guests_;
  std::map<uint64_t, Happening> happenings_;  // of events whose callback has not ended
  uint64_t last_id_ = 0;
  uint64_t last_run_ = 0;
  uint64_t last_event_ = 0;
  uint64_t last_attachment_ = 0;
  uint64_t instance_ = 0;
  uint32_t most_undelivered_ = 0;
  Sink sink_;
  std::vector<Event> missed_;  // power-offs while nobody was attached
  std::string solution_;       // the service VM of the last event about one
  Mux mux_;
  Faults faults_;
  std::map<std::string, uint64_t> questions_;
  std::vector<std::string> violations_;
  uint64_t refused_groups_ = 0;
};

}  // namespace zem::sim::guest
