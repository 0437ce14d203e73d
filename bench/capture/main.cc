// A capture's packets on their way through the exporter, against tcpdump and a bare sending loop.
//
//     bench_capture [PACKETS]
//
// The cases and their goals are in README.md.

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/intrusive_ptr.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "app/pktcap/exporter/pktcap_exporter.h"
#include "app/pktcap/stream/datagram_output.h"
#include "app/pktcap/stream/file_output.h"
#include "framework/log/logger.h"

namespace {

using namespace zem;
using namespace zem::Tarvik;
using Seconds = std::chrono::duration<double>;

constexpr size_t kPacketSize = 120;
constexpr int kRounds = 5;
constexpr int kRecordSize = 16 + kPacketSize;

double Best(const std::function<double()>& run) {
  double best = 1e9;
  for (int i = 0; i < kRounds; ++i) best = std::min(best, run());
  return best;
}

double Timed(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return Seconds(std::chrono::steady_clock::now() - begin).count();
}

void Tell(const char* what, const char* metric, double ours, double peer) {
  std::printf("capture %s %s ours=%.3f peer=%.3f ratio=%.2f\n", what, metric, ours, peer, peer / ours);
}

// UDP over IPv4, so that a filter for it lets everything through.
std::string Packet(uint32_t number) {
  std::string packet(kPacketSize, '.');
  const uint8_t head[] = {
      2,    0x60, 0, 0, 0,  9, 2, 0x60, 0,  0, 0, 1, 8,    0,    0x45, 0,    0, kPacketSize - 14, 0, 0, 0, 0,
      0x40, 0x11, 0, 0, 10, 0, 0, 1,    10, 0, 0, 9, 0x0f, 0xa0, 0x13, 0x88, 0, kPacketSize - 34, 0, 0};
  std::memcpy(packet.data(), head, sizeof(head));
  std::memcpy(packet.data() + sizeof(head), &number, sizeof(number));
  return packet;
}

void WriteStream(const std::string& path, uint32_t packets) {
  std::ofstream out(path, std::ios::binary);
  const auto header = PcapReader::OwnHeader(65'535);
  out.write(header.data(), static_cast<std::streamsize>(header.size()));
  for (uint32_t i = 0; i < packets; ++i) {
    const uint32_t fields[] = {1'700'000'000 + i / 1000, i % 1000 * 1000, kPacketSize, kPacketSize};
    out.write(reinterpret_cast<const char*>(fields), sizeof(fields));
    out << Packet(i);
  }
}

// A process that writes a file into a pipe, whose other end it returns.
int Feed(const std::string& path, pid_t* pid) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
  *pid = ::fork();
  if (*pid == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::execlp("cat", "cat", path.c_str(), nullptr);
    ::_exit(127);
  }
  ::close(ends[1]);
  return ends[0];
}

PacketCounts RunLoop(const std::string& stream, PacketOutput& output) {
  pid_t feeder = -1;
  UniqueFd out(Feed(stream, &feeder));
  ::fcntl(out.get(), F_SETFL, O_NONBLOCK);
  int errors[2];
  if (::pipe2(errors, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
  UniqueFd err(errors[0]);
  const UniqueFd silent(errors[1]);
  const std::atomic<bool> stop{false};
  pid_t tool = -1;
  CaptureLoop("bench", {}, {&out, &err, "", &tool, &stop, -1}, output).Run();
  output.Finish();
  ::waitpid(feeder, nullptr, 0);
  return output.sent();
}

void RunShell(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "failed: %s\n", command.c_str());
    std::exit(1);
  }
}

void FileMode(const std::string& dir, uint32_t packets) {
  const std::string stream = dir + "/stream";
  const std::string file = dir + "/file";
  const double ours = Best([&] {
    return Timed([&] {
      FileOutput output(UniqueFd(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)));
      if (RunLoop(stream, output).packets != packets) std::abort();
    });
  });
  const double peer = Best([&] {
    return Timed([&] {
      RunShell("cat " + stream + " | tcpdump -Z root -r - -w " + file + " 2>/dev/null && sync " + file);
    });
  });
  Tell("file", "seconds", ours, peer);
}

void WriteTool(const std::string& path, const std::string& text) {
  std::ofstream(path) << "#!/bin/sh\n" << text;
  ::chmod(path.c_str(), 0700);
}

void Chain(const std::string& dir, uint32_t packets) {
  const std::string stream = dir + "/stream";
  const std::string file = dir + "/file";
  WriteTool(dir + "/capture", "while [ \"$1\" != -o ]; do shift; done\nexec cat " + stream + " > \"$2\"\n");
  WriteTool(dir + "/filter", "exec tcpdump -Z root -r \"$2\" -U -w - -- udp\n");
  CaptureParameters::Host host;
  host.tools.capture = dir + "/capture";
  host.tools.filter = dir + "/filter";
  host.tools.pipe = dir + "/pipe.XXXXXX";
  const double ours = Best([&] {
    ::unlink(file.c_str());
    return Timed([&] {
             boost::intrusive_ptr<PktcapExporter> exporter(new PktcapExporter("bench", {}, host));
             if (exporter->SetParameter("dvfilter", "x") != 0) std::abort();
             exporter->SetOutputFile(file);
             if (exporter->Run() != 0 ||
                 std::filesystem::file_size(file) != 24 + uint64_t{packets} * kRecordSize) {
               std::abort();
             }
           }) -
           1;
  });
  const double peer = Best([&] {
    return Timed(
        [&] { RunShell("tcpdump -Z root -r " + stream + " -U -w - -- udp 2>/dev/null | cat > " + file); });
  });
  Tell("chain", "seconds", ours, peer);
}

// Takes datagrams and throws them away.
class Receiver {
 public:
  Receiver() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    at_.length = sizeof(address);
    ::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&at_.address), &at_.length);
  }
  const DatagramOutput::Receiver& at() const { return at_; }

 private:
  const UniqueFd socket_;  // never read: a full buffer drops at the receiver and costs both sides the same
  DatagramOutput::Receiver at_{};
};

UniqueFd SendSocket() {
  UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  constexpr int kBuffer = 1 << 20;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof(kBuffer));
  return socket;
}

void BareLoop(const Receiver& receiver, uint32_t packets) {
  const UniqueFd socket = SendSocket();
  constexpr size_t kBatch = 64;
  std::vector<std::string> datagrams;
  for (size_t i = 0; i < kBatch; ++i) datagrams.push_back(std::string(8, '\0') + Packet(0));
  std::array<iovec, kBatch> parts;
  std::array<mmsghdr, kBatch> messages{};
  sockaddr_storage to = receiver.at().address;
  for (size_t i = 0; i < kBatch; ++i) {
    parts[i] = {datagrams[i].data(), datagrams[i].size()};
    messages[i].msg_hdr.msg_name = &to;
    messages[i].msg_hdr.msg_namelen = receiver.at().length;
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (uint32_t left = packets; left > 0;) {
    const int sent = ::sendmmsg(socket.get(), messages.data(), std::min<unsigned>(left, kBatch), 0);
    if (sent > 0) left -= static_cast<uint32_t>(sent);
  }
}

void StreamMode(const std::string& dir, uint32_t packets) {
  const Receiver receiver;
  const double ours = Best([&] {
    return Timed([&] {
      DatagramOutput output(SendSocket(), receiver.at(), DatagramOutput::Framing::kGre, true, 0);
      if (RunLoop(dir + "/stream", output).packets != packets) std::abort();
    });
  });
  const double peer = Best([&] { return Timed([&] { BareLoop(receiver, packets); }); });
  Tell("stream", "seconds", ours, peer);
}

long ResidentKib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

void Growth(const std::string& dir, uint32_t packets) {
  WriteStream(dir + "/short", packets / 100);
  const auto grown = [&](const std::string& stream) {
    const long before = ResidentKib();
    const Receiver receiver;
    DatagramOutput output(SendSocket(), receiver.at(), DatagramOutput::Framing::kGre, true, 0);
    RunLoop(stream, output);
    return static_cast<double>(std::max(1L, ResidentKib() - before));
  };
  grown(dir + "/short");
  constexpr double kAllowedKib = 8192;
  Tell("growth", "KiB", grown(dir + "/stream"), kAllowedKib);
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  Logger::logLevel.store(kLogFatal);
  const uint32_t packets = argc > 1 ? static_cast<uint32_t>(std::atol(argv[1])) : 1'000'000;
  char dir[] = "/tmp/zem-bench-capture-XXXXXX";
  if (packets < 100 || ::mkdtemp(dir) == nullptr) {
    std::fprintf(stderr, "usage: bench_capture [PACKETS]\n");
    return 2;
  }
  WriteStream(std::string(dir) + "/stream", packets);
  FileMode(dir, packets);
  Chain(dir, packets);
  StreamMode(dir, packets);
  Growth(dir, packets);
  std::filesystem::remove_all(dir);
  return 0;
}
