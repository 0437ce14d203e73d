#include "bench/store/spawned.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace zem::bench {

Spawned::Spawned(const std::vector<std::string>& argv) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  output_.Reset(ends[0]);
  const UniqueFd input(ends[1]);
  std::vector<char*> arguments;
  for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("no process");
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(input.get(), STDOUT_FILENO);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
}

Spawned::~Spawned() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void Spawned::Read(void* bytes, size_t size) {
  auto* at = static_cast<char*>(bytes);
  while (size > 0) {
    const ssize_t count = ::read(output_.get(), at, size);
    if (count <= 0) throw std::runtime_error("a process of the benchmark has ended");
    at += count;
    size -= static_cast<size_t>(count);
  }
}

std::string Spawned::Line() {
  std::string line;
  for (char c = 0; Read(&c, 1), c != '\n';) line += c;
  return line;
}

}  // namespace zem::bench
