#include "sim/outsider/outsider_commands.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "sim/control/command_table.h"
#include "sim/control/number.h"

namespace zem::sim {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kNotAnOutsider = 255;
constexpr size_t kLongestFolder = 256;
// Their number is the exit status of the process that has them.
constexpr int kLargestCrowd = 250;
constexpr int kCrowdPatienceMs = 2000;

struct Attempt {
  std::string path;
  sockaddr_storage address{};
  socklen_t address_size = 0;
  int type = SOCK_STREAM;
  int number = 0;
};

int OpenTo(const Attempt& attempt, int flags) {
  const int fd = ::open(attempt.path.c_str(), flags | O_CLOEXEC | O_NONBLOCK);
  return fd >= 0 ? 0 : errno;
}
int Read(const Attempt& attempt) { return OpenTo(attempt, O_RDONLY); }
int Write(const Attempt& attempt) { return OpenTo(attempt, O_WRONLY); }
int Run(const Attempt& attempt) { return ::access(attempt.path.c_str(), X_OK) == 0 ? 0 : errno; }
int Make(const Attempt& attempt) {
  const int fd = ::open(attempt.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  ::unlink(attempt.path.c_str());
  return 0;
}
int Connect(const Attempt& attempt) {
  const int fd = ::socket(attempt.address.ss_family, attempt.type | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&attempt.address), attempt.address_size) == 0
             ? 0
             : errno;
}
// A folder of its own with a file in it, both left behind.
int Plant(const Attempt& attempt) {
  const size_t slash = attempt.path.rfind('/');
  if (slash == std::string::npos || slash >= kLongestFolder) return EINVAL;
  char folder[kLongestFolder] = {};
  attempt.path.copy(folder, slash);
  if (::mkdir(folder, 0755) < 0 && errno != EEXIST) return errno;
  return ::open(attempt.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644) < 0 ? errno : 0;
}
int Signal(const Attempt& attempt) { return ::kill(attempt.number, 0) == 0 ? 0 : errno; }

// So many connections at a time.  Returns on how many of them the other side begins to speak, which a server
// does that greets, before it closes them.
int Crowd(const Attempt& attempt) {
  pollfd connections[kLargestCrowd];
  for (int i = 0; i < attempt.number; ++i) {
    connections[i] = {::socket(attempt.address.ss_family, attempt.type | SOCK_CLOEXEC, 0), POLLIN, 0};
    if (::connect(connections[i].fd, reinterpret_cast<const sockaddr*>(&attempt.address),
                  attempt.address_size) < 0) {
      connections[i].fd = -1;
    }
  }
  int greeted = 0;
  for (int open = attempt.number; open > 0;) {
    if (::poll(connections, static_cast<nfds_t>(attempt.number), kCrowdPatienceMs) <= 0) break;
    open = 0;
    for (int i = 0; i < attempt.number; ++i) {
      char byte;
      if (connections[i].fd >= 0 && connections[i].revents != 0) {
        greeted += ::recv(connections[i].fd, &byte, sizeof(byte), MSG_DONTWAIT) > 0 ? 1 : 0;
        // It stays open: a place that is given back would be taken by the next one.
        connections[i].fd = -1;
      }
      open += connections[i].fd >= 0 ? 1 : 0;
    }
  }
  return greeted;
}

// The child of a process with threads may only make system calls.
std::optional<int> AsNobody(int (*what)(const Attempt&), const Attempt& attempt) {
  const pid_t child = ::fork();
  if (child < 0) return std::nullopt;
  if (child == 0) {
    const bool outside = ::setgroups(0, nullptr) == 0 && ::setresgid(kNobody, kNobody, kNobody) == 0 &&
                         ::setresuid(kNobody, kNobody, kNobody) == 0;
    ::_exit(outside ? what(attempt) : kNotAnOutsider);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) == kNotAnOutsider) return std::nullopt;
  return WEXITSTATUS(status);
}

void Answer(int (*what)(const Attempt&), const Attempt& attempt, const Reply& reply) {
  const auto error = AsNobody(what, attempt);
  if (!error) return reply.Fail("no process of an unprivileged user");
  Json json = JsonObject();
  AddMember(json.get(), "outcome", *error == 0 ? "permitted" : std::strerror(*error));
  reply.Ok(std::move(json));
}

// "PORT" is TCP at 127.0.0.1, "ADDRESS:PORT" at another address; anything with a "/" is a socket in the file
// system.
bool AddressOf(const std::string& text, Attempt* attempt) {
  if (text.find('/') != std::string::npos) {
    auto* const address = reinterpret_cast<sockaddr_un*>(&attempt->address);
    if (text.size() >= sizeof(address->sun_path)) return false;
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, text.data(), text.size());
    attempt->address_size = sizeof(*address);
    return true;
  }
  const size_t colon = text.rfind(':');
  const std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
  const auto port = NumberOf<uint16_t>(colon == std::string::npos ? text : text.substr(colon + 1));
  auto* const address = reinterpret_cast<sockaddr_in*>(&attempt->address);
  address->sin_family = AF_INET;
  address->sin_port = htons(port.value_or(0));
  attempt->address_size = sizeof(*address);
  return port && ::inet_pton(AF_INET, host.c_str(), &address->sin_addr) == 1;
}

}  // namespace

void RegisterOutsiderCommands(CommandTable& table) {
  struct Row {
    const char* name;
    const char* help;
    int (*what)(const Attempt&);
  };
  constexpr Row kFiles[] = {{"read", "Opens a file or folder for reading.", &Read},
                            {"write", "Opens a file for writing, and changes nothing.", &Write},
                            {"make", "Makes a new file, and takes it away again.", &Make},
                            {"plant", "Makes a file, with its folder, and leaves both.", &Plant},
                            {"run", "Asks whether it may execute a file.", &Run}};
  for (const Row& row : kFiles) {
    table.Register(
        {row.name, "PATH", row.help, 1, 1, [what = row.what](const Arguments& arguments, const Reply& reply) {
           Attempt attempt;
           attempt.path = arguments[0];
           Answer(what, attempt, reply);
         }});
  }
  table.Register({"connect", "PATH|PORT|ADDRESS:PORT [datagram]", "Connects to a socket.", 1, 2,
                  [](const Arguments& arguments, const Reply& reply) {
                    Attempt attempt;
                    if (!AddressOf(arguments[0], &attempt)) return reply.Fail("no address");
                    if (arguments.size() > 1) attempt.type = SOCK_DGRAM;
                    Answer(&Connect, attempt, reply);
                  }});
  table.Register({"crowd", "PATH|PORT|ADDRESS:PORT COUNT",
                  "Connects so often at a time; shows on how many connections a server that greets does so.",
                  2, 2, [](const Arguments& arguments, const Reply& reply) {
                    Attempt attempt;
                    const auto count = NumberOf<int>(arguments[1]);
                    if (!AddressOf(arguments[0], &attempt)) return reply.Fail("no address");
                    if (!count || *count < 1 || *count > kLargestCrowd) return reply.Fail("up to 250");
                    attempt.number = *count;
                    const auto greeted = AsNobody(&Crowd, attempt);
                    if (!greeted) return reply.Fail("no process of an unprivileged user");
                    Json json = JsonObject();
                    AddMember(json.get(), "greeted", *greeted);
                    reply.Ok(std::move(json));
                  }});
  table.Register({"signal", "PID", "Asks whether it may send a process signals.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    const auto pid = NumberOf<int>(arguments[0]);
                    if (!pid || *pid <= 0) return reply.Fail("no process id");
                    Attempt attempt;
                    attempt.number = *pid;
                    Answer(&Signal, attempt, reply);
                  }});
}

}  // namespace zem::sim
