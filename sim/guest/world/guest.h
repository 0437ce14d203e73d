#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zem::sim::guest {

enum class System { kWindows, kMultiSession, kLinux, kOther };

struct User {
  std::string name;
  std::string domain;
  std::string sid;                  // Windows
  uint32_t uid = 0;                 // Linux
  std::vector<std::string> groups;  // SIDs, or gids in decimal
};

/// How a session came to be; the value is the type of its logon event.
enum class SessionKind : uint32_t { kLogon = 0, kTerminal = 4, kPseudoTerminal = 6 };

struct Session {
  uint32_t id = 0;
  std::string user;
  bool active = true;
  std::string client_ip;
  SessionKind kind = SessionKind::kLogon;
};

struct Process {
  uint64_t pid = 0;
  uint64_t ctime = 0;
  std::string user;
  std::string name;
  std::string command_line;
  std::string hash;  // raw bytes
  bool ended = false;
};

struct Socket {
  uint64_t id = 0;
  uint64_t pid = 0;
  uint32_t protocol = 0;  // 0 TCP, 1 UDP, 2 ICMP
  std::string source_ip;
  uint16_t source_port = 0;
  std::string destination_ip;
  uint16_t destination_port = 0;
};

/// A guest and all that lives in it.
struct Guest {
  std::string name;
  uint64_t id = 0;
  System system = System::kWindows;
  /// "vc.uuid" of the configuration file; empty: the file has no such line.
  std::string vc_uuid;
  std::string bios_id;  // 16 bytes
  std::string config_path;
  /// An old agent knows nothing of kinds 3 to 5.
  bool old_agent = false;
  /// Ticks until the agent answers about itself and its sessions.
  uint32_t ready_in = 0;

  bool on = false;
  uint64_t run = 0;
  uint64_t mask = 0;
  /// The run for which the library's caller has set its data.
  uint64_t data_run = 0;
  uint32_t undelivered = 0;

  std::map<std::string, User> users;
  std::map<uint32_t, Session> sessions;
  std::map<uint64_t, Process> processes;
  std::map<uint64_t, Socket> sockets;

  /// What became of the network events.
  struct Counts {
    uint64_t offered = 0;
    uint64_t filtered = 0;
    uint64_t dropped = 0;
    uint64_t delivered = 0;
    uint64_t refused = 0;  // with a verdict other than 1
  } counts;

  bool data_set() const { return data_run == run && run != 0; }
  bool windows() const { return system == System::kWindows || system == System::kMultiSession; }
};

/// What an event was about when it happened; the library's questions about the event are answered from it.
struct Happening {
  uint64_t guest = 0;
  bool network = false;
  Socket socket;
  Process process;
  User user;
  Session session;
};

}  // namespace zem::sim::guest
