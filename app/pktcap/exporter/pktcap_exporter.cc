#include "app/pktcap/exporter/pktcap_exporter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "app/pktcap/stream/datagram_output.h"
#include "app/pktcap/stream/file_output.h"
#include "app/pktcap/tools/tool_process.h"
#include "framework/log/log.h"
#include "platform/core/poll.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr uint16_t kGrePort = 4754;
constexpr int kSendBuffer = 1 << 20;
constexpr auto kLaunch = std::chrono::seconds(1);
constexpr int kFilterGraceS = 5;
constexpr int kCaptureGraceS = 2;
constexpr int kErrorPieces = 16;

constexpr const char* kBadMode = "bad parameter";
constexpr const char* kNoFile = "open(): failed to open file";
constexpr const char* kBadAddress = "inet_pton(): invalid addr error";
constexpr const char* kNoSocket = "socket(): failed to open raw socket";
constexpr const char* kNoBuffer = "setsockopt(): failed to increase buffer size";
constexpr const char* kNoPipe = "mkfifo(): failed to create fifo file";
constexpr const char* kNoCapture = "pktcap-uw: failed to launch";
constexpr const char* kNoFilter = "Popen(): failed to spawn process";
constexpr const char* kNotNonblocking = "fcntl(): failed to set nonblocking";

constexpr int kGeneralCode = 4;
struct NoteCode {
  std::string_view text;
  int code;
};
constexpr std::array kCodes = {NoteCode{kBadMode, 2}, NoteCode{kNoBuffer, 2}, NoteCode{kBadAddress, 6},
                               NoteCode{kNoSocket, 6}};

bool SetNonBlocking(const UniqueFd& fd) {
  const int flags = ::fcntl(fd.get(), F_GETFL);
  return flags >= 0 && ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

bool ParseReceiver(const std::string& address, uint16_t port, DatagramOutput::Receiver* receiver) {
  receiver->address = {};
  auto* const six = reinterpret_cast<sockaddr_in6*>(&receiver->address);
  if (::inet_pton(AF_INET6, address.c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(port);
    receiver->length = sizeof(*six);
    return true;
  }
  auto* const four = reinterpret_cast<sockaddr_in*>(&receiver->address);
  if (::inet_pton(AF_INET, address.c_str(), &four->sin_addr) != 1) return false;
  four->sin_family = AF_INET;
  four->sin_port = htons(port);
  receiver->length = sizeof(*four);
  return true;
}

}  // namespace

// What a session has running, and what it has to take away.
struct PktcapExporter::ToolChain {
  std::string pipe;
  pid_t capture = -1;
  pid_t filter = -1;
  UniqueFd output;
  UniqueFd errors;
};

PktcapExporter::PktcapExporter(std::string session, const CaptureLimits& limits,
                               const CaptureParameters::Host& host)
    : session_(std::move(session)),
      limits_(limits),
      host_(host),
      parameters_(host),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

int PktcapExporter::SetParameter(const std::string& name, const std::string& value,
                                 const std::atomic<bool>* stop) {
  return parameters_.Set(name, value, stop);
}

void PktcapExporter::SetOutputFile(const std::string& path) {
  mode_ = OutputMode::kLocalFile;
  target_ = path;
}

void PktcapExporter::SetOutputStream(const std::string& address, uint16_t port, bool gre) {
  mode_ = gre ? OutputMode::kStreamInGre : OutputMode::kStreamWithHeader;
  target_ = address;
  port_ = gre ? kGrePort : port;
}

void PktcapExporter::RequestStop() {
  stop_requested_ = true;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
}

int PktcapExporter::Run() {
  const std::unique_ptr<PacketOutput> output = PrepareOutput();
  if (!output) return -1;
  const TimePoint begin = Clock::Process().Now();
  ToolChain tools;
  int result = -1;
  if (StartTools(&tools)) {
    CaptureLoop loop(
        session_, limits_,
        {&tools.output, &tools.errors, tools.pipe, &tools.capture, &stop_requested_, wake_.get()}, *output);
    const CaptureLoop::Failure failure = loop.Run();
    if (failure.text != nullptr) Note(failure.text);
    result = failure.fatal ? -1 : 0;
    if (result == 0 && mode_ == OutputMode::kLocalFile && !loop.has_header()) {
      const auto header = PcapReader::OwnHeader(limits_.snap_length);
      if (const char* const failed = output->TakeHeader({header.data(), header.size()})) {
        result = Note(failed);
      }
    }
    const char* const failed = output->Finish();
    if (failed != nullptr && result == 0) result = Note(failed);
  }
  StopTools(&tools);
  const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::Process().Now() - begin);
  ZLOG_INFO("Session %s: return value %d in %ld seconds, packets:%lu, size: %lu", session_.c_str(), result,
            static_cast<long>(passed.count()), static_cast<unsigned long>(output->sent().packets),
            static_cast<unsigned long>(output->sent().bytes));
  return result;
}

std::unique_ptr<PacketOutput> PktcapExporter::PrepareOutput() {
  switch (mode_) {
    case OutputMode::kLocalFile:
      return OpenFile();
    case OutputMode::kStreamInGre:
    case OutputMode::kStreamWithHeader:
      return OpenStream();
  }
  Note(kBadMode);
  return nullptr;
}

std::unique_ptr<PacketOutput> PktcapExporter::OpenFile() {
  UniqueFd file(::open(target_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (file) return std::make_unique<FileOutput>(std::move(file));
  Note(kNoFile);
  return nullptr;
}

std::unique_ptr<PacketOutput> PktcapExporter::OpenStream() {
  DatagramOutput::Receiver receiver;
  if (!ParseReceiver(target_, port_, &receiver)) {
    Note(kBadAddress);
    return nullptr;
  }
  // Not connected: a receiver that is not there yet must not end the session.
  UniqueFd socket(::socket(receiver.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) {
    Note(kNoSocket);
    return nullptr;
  }
  ZLOG_INFO("Session %s Connected Remote Receiver %s:%d", session_.c_str(), target_.c_str(), port_);
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer)) != 0) {
    Note(kNoBuffer);
  }
  const auto framing = mode_ == OutputMode::kStreamInGre ? DatagramOutput::Framing::kGre
                                                         : DatagramOutput::Framing::kCaptureHeader;
  return std::make_unique<DatagramOutput>(std::move(socket), receiver, framing, parameters_.incoming(),
                                          parameters_.vni());
}

bool PktcapExporter::StartTools(ToolChain* tools) {
  tools->pipe = TemporaryName(host_.tools.pipe);
  if (tools->pipe.empty() || ::mkfifo(tools->pipe.c_str(), 0600) != 0) {
    tools->pipe.clear();
    return Note(kNoPipe) == 0;
  }
  std::vector<std::string> capture = {host_.tools.capture};
  for (std::string& argument : parameters_.CaptureArguments(&stop_requested_)) {
    capture.push_back(std::move(argument));
  }
  capture.insert(capture.end(), {"-o", tools->pipe});
  tools->capture = Popen(capture, nullptr, nullptr, nullptr);
  if (tools->capture < 0) return Note(kNoCapture) == 0;
  pollfd wake{wake_.get(), POLLIN, 0};
  PollUntil(&wake, 1, Clock::Process().Now() + kLaunch);

  std::vector<std::string> filter = {host_.tools.filter,
                                     "-r",
                                     tools->pipe,
                                     "-s",
                                     std::to_string(limits_.snap_length),
                                     "-U",
                                     "-w",
                                     "-",
                                     "--"};
  for (std::string& argument : parameters_.FilterArguments()) filter.push_back(std::move(argument));
  tools->filter = Popen(filter, nullptr, &tools->output, &tools->errors);
  if (tools->filter < 0) return Note(kNoFilter) == 0;
  if (!SetNonBlocking(tools->output) || !SetNonBlocking(tools->errors)) return Note(kNotNonblocking) == 0;
  return true;
}

void PktcapExporter::StopTools(ToolChain* tools) {
  for (int i = 0; i < kErrorPieces && tools->errors; ++i) LogToolErrors(session_, &tools->errors);
  if (tools->filter > 0 && KillGraceful(tools->filter, kFilterGraceS) != 0) {
    ZLOG_ERROR("OPS01003", "pktcap pid: %d was unable to kill", static_cast<int>(tools->filter));
  }
  if (tools->capture > 0 && KillGraceful(tools->capture, kCaptureGraceS) != 0) {
    ZLOG_ERROR("OPS01003", "pktcap pid: %d was unable to kill", static_cast<int>(tools->capture));
  }
  if (!tools->pipe.empty()) ::unlink(tools->pipe.c_str());
}

// Keeps and logs what went wrong.  Returns -1.
int PktcapExporter::Note(const char* text) {
  const auto special =
      std::find_if(kCodes.begin(), kCodes.end(), [text](const NoteCode& code) { return code.text == text; });
  error_code_ = special == kCodes.end() ? kGeneralCode : special->code;
  error_text_ = text;
  ZLOG_ERROR("OPS01002", "Session %s: %s", session_.c_str(), text);
  return -1;
}

}  // namespace zem::Tarvik
