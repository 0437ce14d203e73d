// The simulated host's filter tool: reads a pcap stream from a file or pipe, and writes the packets that pass
// an expression to its standard output, each at once.
//
//     tcpdump-uw -r FILE -s SNAPLEN -U -w - -- EXPRESSION...
//
// It writes the stream's header before the first packet, cuts packets to the snap length, and ends with the
// stream, with an interrupt (exit status 1, also in the opening of a pipe), or with an expression that is
// none (1).  In a mode, which the node's commands set, it writes a prepared stream as it stands, is deaf, or
// ends at once.

#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char* kFolder = "/var/run/orlane/sim/capture";
constexpr uint32_t kLargest = 262'144;

volatile std::sig_atomic_t interrupted = 0;

void NoteSignal(const char* name) {
  const int file = ::open((std::string(kFolder) + "/signals").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
  if (file < 0) return;
  const std::string line = "tcpdump-uw\t" + std::to_string(::getpid()) + "\t" + name + "\n";
  [[maybe_unused]] const ssize_t best_effort = ::write(file, line.data(), line.size());
  ::close(file);
}

void OnInterrupt(int) { interrupted = 1; }

int End(int code) {
  if (interrupted != 0) NoteSignal("INT");
  return interrupted != 0 ? 1 : code;
}

bool WriteWhole(const char* bytes, size_t size) {
  while (size > 0 && interrupted == 0) {
    const ssize_t part = ::write(STDOUT_FILENO, bytes, size);
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) return false;
    bytes += part;
    size -= static_cast<size_t>(part);
  }
  return size == 0;
}

void NoteRun(int argc, char** argv) {
  ::mkdir(kFolder, 0755);
  std::string line = "tcpdump-uw\t" + std::to_string(::getpid());
  for (int i = 1; i < argc; ++i) line += std::string("\t") + argv[i];
  std::ofstream(std::string(kFolder) + "/runs", std::ios::app) << line + "\n";
}

std::vector<std::string> Mode() {
  std::ifstream file(std::string(kFolder) + "/mode.tcpdump-uw");
  std::vector<std::string> words;
  for (std::string word; file >> word;) words.push_back(word);
  return words;
}

// Bytes that no filter would let through.
int Replay(const std::string& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return WriteWhole(bytes.str().data(), bytes.str().size()) ? 0 : 1;
}

struct Options {
  std::string input;
  uint32_t snap_length = kLargest;
  std::string expression;
};

// The host's tool takes the number of a virtual network behind a word of its own.
std::string Expression(int argc, char** argv, int first) {
  std::string expression;
  for (int i = first; i < argc; ++i) {
    if (i > first && std::string_view(argv[i]) == "vni" && std::string_view(argv[i - 1]) == "geneve")
      continue;
    expression += (expression.empty() ? "" : " ") + std::string(argv[i]);
  }
  return expression;
}

bool Parse(int argc, char** argv, Options* options) {
  int i = 1;
  for (; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    const std::string_view word = argv[i];
    if (word == "-U") continue;
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    if (word == "-r") {
      options->input = value;
    } else if (word == "-s") {
      const unsigned long length = std::strtoul(value.c_str(), nullptr, 10);
      options->snap_length =
          length == 0 ? kLargest : static_cast<uint32_t>(std::min<unsigned long>(length, kLargest));
    } else if (word != "-w" || value != "-") {
      return false;
    }
  }
  options->expression = Expression(argc, argv, i + 1);
  return !options->input.empty();
}

int Filter(const Options& options) {
  char error[PCAP_ERRBUF_SIZE];
  const std::unique_ptr<pcap_t, void (*)(pcap_t*)> stream(pcap_open_offline(options.input.c_str(), error),
                                                          &pcap_close);
  if (!stream) {
    std::fprintf(stderr, "tcpdump-uw: %s\n", error);
    return 1;
  }
  bpf_program program;
  if (pcap_compile(stream.get(), &program, options.expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    std::fprintf(stderr, "tcpdump-uw: %s\n", pcap_geterr(stream.get()));
    return 1;
  }
  const std::unique_ptr<bpf_program, void (*)(bpf_program*)> held(&program, &pcap_freecode);
  const pcap_file_header header{
      0xa1b2c3d4, 2, 4, 0, 0, options.snap_length, static_cast<bpf_u_int32>(pcap_datalink(stream.get()))};
  if (!WriteWhole(reinterpret_cast<const char*>(&header), sizeof(header))) return 1;
  pcap_pkthdr* packet = nullptr;
  const u_char* data = nullptr;
  std::string record;
  while (interrupted == 0 && pcap_next_ex(stream.get(), &packet, &data) == 1) {
    if (pcap_offline_filter(&program, packet, data) == 0) continue;
    const uint32_t kept = std::min(packet->caplen, options.snap_length);
    const uint32_t fields[] = {static_cast<uint32_t>(packet->ts.tv_sec),
                               static_cast<uint32_t>(packet->ts.tv_usec), kept, packet->len};
    record.assign(reinterpret_cast<const char*>(fields), sizeof(fields));
    record.append(reinterpret_cast<const char*>(data), kept);
    if (!WriteWhole(record.data(), record.size())) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  NoteRun(argc, argv);
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;  // without SA_RESTART: it ends a wait
  ::sigaction(SIGINT, &action, nullptr);
  const std::vector<std::string> mode = Mode();
  if (!mode.empty() && mode[0] == "die") return 1;
  if (mode.size() > 1 && mode[0] == "replay") return End(Replay(mode[1]));
  if (!mode.empty() && mode[0] == "deaf") {
    for (;;) ::pause();
  }
  Options options;
  if (!Parse(argc, argv, &options)) {
    std::fprintf(stderr, "usage: tcpdump-uw -r FILE -s SNAPLEN -U -w - -- EXPRESSION...\n");
    return 2;
  }
  return End(Filter(options));
}
