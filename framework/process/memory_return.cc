#include "framework/process/memory_return.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace zem {
namespace {

constexpr int kBigBlock = 4 << 20;

size_t ResidentBytes() {
  const std::unique_ptr<FILE, int (*)(FILE*)> statm(std::fopen("/proc/self/statm", "re"), &std::fclose);
  size_t total = 0;
  size_t resident = 0;
  if (!statm || std::fscanf(statm.get(), "%zu %zu", &total, &resident) != 2) return 0;
  return resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

void MemoryReturn::Configure() {
  ::mallopt(M_MMAP_THRESHOLD, kBigBlock);
  ::mallopt(M_TRIM_THRESHOLD, kBigBlock);
}

// What has been given back still counts as free in the allocator's own figures, so the process's size decides
// whether there is anything new.
bool MemoryReturn::GiveBack() {
  const size_t resident = ResidentBytes();
  resident_after_ = std::min(resident_after_, resident);
  if (resident < resident_after_ + kLeast || ::mallinfo2().fordblks < kLeast) return false;
  ::malloc_trim(0);
  resident_after_ = ResidentBytes();
  return true;
}

}  // namespace zem
