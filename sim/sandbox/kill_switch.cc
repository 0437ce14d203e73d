#include "sim/sandbox/kill_switch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/core/unique_fd.h"
#include "sim/data/data_folder.h"
#include "sim/killpoints/kill_page.h"

namespace zem::sim {

std::string KillSwitch::Library() {
  std::string path = DataFolder::Get().libraries + "/libkillpoints.so";
  return ::access(path.c_str(), R_OK) == 0 ? path : std::string();
}

KillSwitch::KillSwitch(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  void* mapped = MAP_FAILED;
  if (fd && ::ftruncate(fd.get(), sizeof(KillPage)) == 0) {
    mapped = ::mmap(nullptr, sizeof(KillPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  }
  if (mapped == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
  page_ = static_cast<KillPage*>(mapped);
}

KillSwitch::~KillSwitch() { ::munmap(page_, sizeof(KillPage)); }

void KillSwitch::Arm(uint32_t at, bool after) {
  Disarm();
  page_->steps = 0;
  page_->killed = 0;
  page_->kill_at = at;
  page_->after = after ? 1 : 0;
  page_->armed.store(1, std::memory_order_release);
}

void KillSwitch::Disarm() { page_->armed.store(0, std::memory_order_release); }

KillSwitch::State KillSwitch::state() const {
  State state;
  state.armed = page_->armed.load(std::memory_order_acquire) != 0;
  state.killed = page_->killed.load(std::memory_order_acquire) != 0;
  state.steps = page_->steps.load();
  if (state.killed) state.step = NameOf(page_->kill_at);
  return state;
}

std::vector<std::string> KillSwitch::LastSteps(uint32_t count) const {
  const uint32_t last = page_->steps.load();
  count = std::min({count, last, KillPage::kNames});
  std::vector<std::string> names;
  for (uint32_t step = last - count + 1; step <= last; ++step) names.push_back(NameOf(step));
  return names;
}

std::string KillSwitch::NameOf(uint32_t step) const {
  const char* const name = page_->names[step % KillPage::kNames];
  return std::string(name, ::strnlen(name, KillPage::kNameSize));
}

}  // namespace zem::sim
