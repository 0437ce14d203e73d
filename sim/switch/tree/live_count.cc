#include "sim/switch/tree/live_count.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

std::string Folder() { return tree::Root() + "/switch/live"; }

}  // namespace

LiveCount::~LiveCount() {
  if (counter_ != nullptr) ::munmap(counter_, sizeof(*counter_));
}

std::atomic<int64_t>* LiveCount::Counter() {
  std::call_once(once_, [this] {
    ::mkdir(Folder().c_str(), 0755);
    const std::string path = Folder() + "/" + kind_ + "." + std::to_string(::getpid());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    if (::ftruncate(fd, sizeof(*counter_)) == 0) {
      void* const memory = ::mmap(nullptr, sizeof(*counter_), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (memory != MAP_FAILED) counter_ = static_cast<std::atomic<int64_t>*>(memory);
    }
    ::close(fd);
  });
  return counter_;
}

void LiveCount::Add(int64_t change) {
  if (std::atomic<int64_t>* const counter = Counter()) counter->fetch_add(change);
}

std::vector<LiveObjects> ReadLiveObjects() {
  std::vector<LiveObjects> objects;
  for (const std::string& name : tree::List(Folder()).value_or(std::vector<std::string>())) {
    const size_t point = name.rfind('.');
    if (point == std::string::npos) continue;
    const int pid = std::atoi(name.c_str() + point + 1);
    if (::kill(pid, 0) != 0 && errno == ESRCH) {
      static_cast<void>(tree::RemoveFile(Folder() + "/" + name));
      continue;
    }
    const auto bytes = tree::ReadFile(Folder() + "/" + name);
    int64_t count = 0;
    if (!bytes || bytes->size() != sizeof(count)) continue;
    std::memcpy(&count, bytes->data(), sizeof(count));
    if (count != 0) objects.push_back({pid, name.substr(0, point), count});
  }
  return objects;
}

}  // namespace zem::sim
