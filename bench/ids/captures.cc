// The files of a message of captures, in a folder that holds many others, against plain reads of them.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "bench/ids/bench_ids.h"

namespace zem::bench {
namespace {

using namespace IdsEvtEng;

constexpr uint64_t kFiles = 10000;
constexpr uint64_t kWanted = 20;
constexpr size_t kBytes = 40000;
constexpr uint64_t kStep = kFiles / kWanted;

std::string PathOf(const std::string& folder, uint64_t flow) {
  return folder + "/" + std::to_string(flow) + ".9.pcap";
}

double Ours(const std::string& folder) {
  Interruption interruption;
  const CaptureFiles files(folder, interruption);
  const auto begin = SteadyClock::now();
  CaptureFiles::Reader reader(files);
  for (uint64_t flow = 1; flow <= kFiles; flow += kStep) {
    const auto capture = reader.Read({flow, 9}, size_t{8} << 20, false);
    if (!capture || capture->bytes.size() != kBytes) throw std::runtime_error("a capture was not read");
  }
  return Seconds(begin);
}

double Peer(const std::string& folder) {
  const auto begin = SteadyClock::now();
  for (uint64_t flow = 1; flow <= kFiles; flow += kStep) {
    const int fd = ::open(PathOf(folder, flow).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat file {};
    ::fstat(fd, &file);
    std::string bytes(static_cast<size_t>(file.st_size), '\0');
    if (::read(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(kBytes))
      throw std::runtime_error("a file was not read");
    ::close(fd);
  }
  return Seconds(begin);
}

}  // namespace

void RunCaptures(int rounds) {
  char folder[] = "/tmp/zem-bench-ids.XXXXXX";
  if (::mkdtemp(folder) == nullptr) throw std::runtime_error("no folder in /tmp");
  for (uint64_t flow = 1; flow <= kFiles; ++flow)
    std::ofstream(PathOf(folder, flow)) << std::string(flow % kStep == 1 ? kBytes : 10, 'p');
  const double ours = Best(rounds * 5, [&] { return Ours(folder); });
  const double peer = Best(rounds * 5, [&] { return Peer(folder); });
  std::filesystem::remove_all(folder);
  LessIsBetter("captures-20-of-10000", "ms_against_plain_reads", ours * 1e3, peer * 1e3);
}

}  // namespace zem::bench
