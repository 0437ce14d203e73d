#include "sim/sandbox/sandbox.h"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/core/unique_fd.h"

namespace zem::sim {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void Check(int result, const std::string& what) {
  if (result < 0) Fail(what);
}

void MakeDirectories(const std::string& path, mode_t mode = 0755) {
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i != path.size() && path[i] != '/') continue;
    const std::string part = path.substr(0, i);
    if (::mkdir(part.c_str(), mode) < 0 && errno != EEXIST) Fail("mkdir " + part);
  }
}

void Mount(const char* source, const std::string& target, const char* type, unsigned long flags,
           const char* data) {
  Check(::mount(source, target.c_str(), type, flags, data), "mount " + target);
}

void Bind(const std::string& source, const std::string& target) {
  Mount(source.c_str(), target, nullptr, MS_BIND, nullptr);
}

void WriteFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out || ::chmod(path.c_str(), mode) < 0) Fail("write " + path);
}

// Mounts over the machine's folder a writable layer that belongs to the node.
void Overlay(const std::string& layers, const std::string& path) {
  std::string name = path;
  for (char& c : name) {
    if (c == '/') c = '_';
  }
  const std::string upper = layers + "/" + name + ".upper";
  const std::string work = layers + "/" + name + ".work";
  MakeDirectories(upper);
  MakeDirectories(work);
  const std::string data = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + work;
  Mount("overlay", path, "overlay", 0, data.c_str());
}

void MakeDevices() {
  constexpr const char* kDevices[] = {"null", "zero", "full", "random", "urandom", "tty"};
  const UniqueFd machine(::open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC));
  Mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755");
  for (const char* device : kDevices) {
    const std::string target = std::string("/dev/") + device;
    WriteFile(target, "");
    Bind("/proc/self/fd/" + std::to_string(machine.get()) + "/" + device, target);
  }
  MakeDirectories("/dev/shm", 01777);
  Check(::symlink("/proc/self/fd", "/dev/fd"), "/dev/fd");
}

void RaiseLoopback() {
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
  Check(::ioctl(socket.get(), SIOCGIFFLAGS, &request), "loopback");
  request.ifr_flags |= IFF_UP | IFF_RUNNING;
  Check(::ioctl(socket.get(), SIOCSIFFLAGS, &request), "loopback");
  // A resolver that is asked for configured families alone does not count 127.0.0.1 and would refuse each
  // address.
  std::strncpy(request.ifr_name, "lo:1", sizeof(request.ifr_name) - 1);
  sockaddr_in second{};
  second.sin_family = AF_INET;
  second.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  std::memcpy(&request.ifr_addr, &second, sizeof(second));
  Check(::ioctl(socket.get(), SIOCSIFADDR, &request), "second loopback address");
}

// Returns no descriptor for an empty name.
UniqueFd OpenFolder(const std::string& path) {
  if (path.empty()) return UniqueFd();
  UniqueFd folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) Fail("open " + path);
  return folder;
}

void BindFolder(const UniqueFd& folder, const std::string& target) {
  if (!folder) return;
  MakeDirectories(target);
  Bind("/proc/self/fd/" + std::to_string(folder.get()), target);
}

// For files of the source tree.
void BindReadOnly(const UniqueFd& folder, const std::string& target) {
  if (!folder) return;
  BindFolder(folder, target);
  Mount(nullptr, target, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr);
}

void MakeMounts(const SandboxOptions& options) {
  // These are opened before the new mounts hide them.
  const UniqueFd directory(::open(options.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) Fail("open " + options.directory);
  const UniqueFd daemon(::open(options.daemon.c_str(), O_PATH | O_CLOEXEC));
  if (!daemon) Fail("open " + options.daemon);

  const UniqueFd scripts = OpenFolder(options.host_scripts);
  const UniqueFd agent_scripts = OpenFolder(options.agent_scripts);
  const UniqueFd libraries = OpenFolder(options.libraries);
  const UniqueFd datastore = OpenFolder(options.datastore);

  Check(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
  Mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
  Mount("tmpfs", "/run", "tmpfs", MS_NOSUID, "mode=755");
  MakeDirectories("/run/zem-layers");
  for (const char* path :
       {"/etc", "/opt", "/usr/local", "/usr/lib", "/usr/lib64", "/usr/bin", "/usr/sbin", "/var"})
    Overlay("/run/zem-layers", path);
  Mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID, "mode=1777");
  Mount("tmpfs", "/var/log", "tmpfs", MS_NOSUID, "mode=755");
  MakeDevices();

  const bool installed = options.daemon == kDaemonPath;
  // What an agent that is installed on the machine is told is not meant for the node's.
  if (!installed) std::filesystem::remove_all("/etc/orlane");
  MakeDirectories(kNodeDirectory);
  Bind("/proc/self/fd/" + std::to_string(directory.get()), kNodeDirectory);
  for (const char* path :
       {"/etc/orlane/zem-tarvik", "/etc/orlane/zema", "/etc/orlane/zem", "/run/orlane/zem-tarvik",
        "/run/orlane/zem-agent", "/run/orlane/gw-controller", "/run/orlane/zem-sha",
        "/opt/orlane/zem-tarvik/bin", "/opt/orlane/zem-tarvik/libexec"}) {
    MakeDirectories(path);
  }
  if (!installed) {
    WriteFile(kDaemonPath, "");
    Bind("/proc/self/fd/" + std::to_string(daemon.get()), kDaemonPath);
  }
  BindReadOnly(scripts, kHostScripts);
  BindReadOnly(agent_scripts, kAgentScripts);
  BindFolder(libraries, options.libraries);
  BindFolder(datastore, kDatastore);
  MakeDirectories("/usr/local/bin");
  // The daemon calls it by name and by path; the machine need not have either.
  for (const char* python : {"/usr/local/bin/python", "/usr/bin/python"}) {
    if (::access("/usr/bin/python3", X_OK) != 0 || ::access(python, F_OK) == 0) continue;
    Check(::symlink("/usr/bin/python3", python), "python");
  }
}

int Attempt(const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zem-node: %s\n", error.what());
    return 1;
  }
}

int ExitCode(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

int WaitForEnd(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) Fail("waitpid");
  }
  return ExitCode(status);
}

// The sandbox's first process.  Like a machine's init it reaps orphaned processes, and it does nothing else:
// the body waits for its own children.
int InitProcess(const SandboxOptions& options, const std::function<int()>& body) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int failed = Attempt([&options] {
    MakeMounts(options);
    RaiseLoopback();
    return 0;
  });
  if (failed != 0) return failed;
  const pid_t node = ::fork();
  if (node == 0) ::_exit(Attempt(body));
  if (node < 0) return 1;
  for (;;) {
    int status = 0;
    const pid_t ended = ::wait(&status);
    if (ended == node) return ExitCode(status);
    if (ended < 0 && errno != EINTR) return 1;
  }
}

// unshare() puts only the children into the new process namespace, so one process remains between the caller
// and the sandbox's first process.
int EnterNamespaces(const SandboxOptions& options, const std::function<int()>& body) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC) < 0) {
    std::fprintf(stderr, "zem-node: new namespaces (this takes root): %s\n", std::strerror(errno));
    return 1;
  }
  const pid_t child = ::fork();
  if (child == 0) ::_exit(InitProcess(options, body));
  return child > 0 ? WaitForEnd(child) : 1;
}

}  // namespace

int RunInSandbox(const SandboxOptions& options, const std::function<int()>& body) {
  const pid_t child = ::fork();
  Check(child, "fork");
  if (child == 0) ::_exit(EnterNamespaces(options, body));
  return WaitForEnd(child);
}

}  // namespace zem::sim
