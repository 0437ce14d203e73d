#include "tests/world/world_capture.h"

#include <pcap/pcap.h>
#include <signal.h>

#include <filesystem>

#include "app/pktcap/service/pktcap_app.h"
#include "platform/core/poll.h"
#include "platform/core/virtual_clock.h"
#include "proto/packetcapture/packetcapture.pb.h"
#include "sim/capture/capture_tools.h"
#include "sim/manager/manager.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kVertical = "PacketCapture";
constexpr const char* kPoint = "knl:knl0";
constexpr auto kCallTimeout = 2min;
constexpr int kMostWaits = 4000;
constexpr const char* kToolModes[][3] = {
    {"pktcap-uw", "die", ""},     {"pktcap-uw", "packets", "3"},  {"tcpdump-uw", "die", ""},
    {"find_portid", "exit", "1"}, {"find_portid", "garbage", ""}, {"knlctlProxy", "header", ""},
    {"knlctlProxy", "exit", ""},  {"knlctlProxy", "refuse", ""},  {"knlctlProxy", "half", ""},
};
constexpr const char* kProcesses[] = {"pktcap-uw", "tcpdump-uw", "knlctlProxy", "sbundle-upload.py"};

// The numbers of the packets of a capture file; -1 for one without.  Throws std::runtime_error for a file
// that does not read to its end.
std::vector<int64_t> NumbersIn(const std::string& path) {
  char error[PCAP_ERRBUF_SIZE];
  const std::unique_ptr<pcap_t, void (*)(pcap_t*)> file(pcap_open_offline(path.c_str(), error), &pcap_close);
  if (!file) throw std::runtime_error(error);
  std::vector<int64_t> numbers;
  pcap_pkthdr* packet = nullptr;
  const u_char* data = nullptr;
  int result = 0;
  while ((result = pcap_next_ex(file.get(), &packet, &data)) == 1) {
    const auto number = sim::capture::NumberIn({reinterpret_cast<const char*>(data), packet->caplen});
    numbers.push_back(number ? static_cast<int64_t>(*number) : -1);
  }
  if (result != PCAP_ERROR_BREAK) throw std::runtime_error(pcap_geterr(file.get()));
  return numbers;
}

bool CaptureHasBegun() {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp", error)) {
    if (entry.path().filename().string().starts_with("pktcapApp-tmp.") && entry.file_size(error) > 0)
      return true;
  }
  return false;
}

}  // namespace

WorldCapture::WorldCapture(VirtualClock& clock, sim::Manager& manager)
    : clock_(clock), manager_(manager), sink_("/run/zem-node/uploads", 0) {}

WorldCapture::~WorldCapture() = default;

void WorldCapture::StartAgent(AsioZemProvider& provider) {
  app_ = std::make_unique<Tarvik::PktCapApp>(provider);
  if (!app_->Start()) throw std::runtime_error("packet capture does not start");
}

Lines WorldCapture::StopAgent() {
  app_->Stop();
  app_.reset();
  Lines left = sim::capture::Leftovers();
  left_.insert(left_.end(), left.begin(), left.end());
  return left;
}

int WorldCapture::Ask(const std::string& text) {
  sim::Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = "PktCapManagerToHostMsg";
  request.text = text;
  request.timeout = kCallTimeout;
  const int number = ++asked_;
  const auto end = [this, number](const std::string& answer) {
    const std::lock_guard lock(mutex_);
    ++calls_[number].ends;
    calls_[number].answer = answer;
  };
  const std::string error = manager_.Send(request, [end](const sim::HostAnswer& answer) {
    end(answer.status.ok() ? sim::AnswerJson(kVertical, answer) : "no answer");
  });
  if (!error.empty()) end("no answer");
  return number;
}

bool WorldCapture::Ended(int number) {
  const std::lock_guard lock(mutex_);
  return calls_[number].ends > 0;
}

bool WorldCapture::WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < kMostWaits; ++i) {
    if (done()) return true;
    clock_.RunFor(i % 10 == 9 ? 100ms : 0ms);
    LetOthersWork();
  }
  return false;
}

std::string WorldCapture::Start(const std::string& id, const std::string& more) {
  return "operation { op_type: 4 session_id: \"" + id +
         "\" request { cap_type: 2 cap_value: \"knl0\" direction: 1 " + more + " } }";
}

std::string WorldCapture::Upload(const std::string& id) {
  const auto sink = sink_.state();
  return "operation { op_type: 3 session_id: \"" + id + "\" upload_token: \"t-" + id +
         "\" https_repository_info { server: \"127.0.0.1\" port: " + std::to_string(sink.port) +
         " fingerprint: \"" + sink.thumbprint + "\" } }";
}

void WorldCapture::Operate(std::mt19937_64& random) {
  const std::string some = "s" + std::to_string(random() % static_cast<uint64_t>(sessions_ + 1));
  switch (random() % 7) {
    case 0:
    case 1:
      Ask(Start("s" + std::to_string(++sessions_),
                "cap_mode: 1 cap_duration: " + std::to_string(1 + random() % 90) +
                    (random() % 2 == 0 ? " max_packets: " + std::to_string(1 + random() % 5) : "")));
      break;
    case 2:
      Ask(Start("s" + std::to_string(++sessions_),
                "cap_mode: 2 stream_address: \"127.0.0.1\" stream_port: 1 cap_duration: 5"));
      break;
    case 3:
      traffic_.Inject(kPoint, {}, 1 + random() % 20, random() % 4 == 0);
      break;
    case 4:
      Ask("operation { op_type: 2 session_id: \"" + some + "\" }");
      break;
    case 5:
      Ask(Upload(some));
      break;
    default:
      Ask("operation { op_type: 1 session_id: \"" + some + "\" }");
  }
}

void WorldCapture::Disturb(std::mt19937_64& random) {
  switch (random() % 4) {
    case 0: {
      const auto& mode = kToolModes[random() % std::size(kToolModes)];
      std::vector<std::string> words = {mode[1]};
      if (*mode[2] != '\0') words.emplace_back(mode[2]);
      sim::capture::SetMode(mode[0], words);
      break;
    }
    case 1:
      for (const pid_t pid : sim::capture::Running(kProcesses[random() % std::size(kProcesses)])) {
        ::kill(pid, random() % 2 == 0 ? SIGKILL : SIGINT);
      }
      break;
    case 2:
      sink_.SetAnswers(
          random() % 2 == 0 ? sim::UploadSink::Answers::kStatus : sim::UploadSink::Answers::kClose, 2);
      break;
    default:
      sink_.ChangeCertificate();
  }
}

void WorldCapture::Calm() {
  sim::capture::ClearModes();
  sink_.SetAnswers(sim::UploadSink::Answers::kServe, 0);
}

void WorldCapture::CheckUploads(Lines* lines) {
  for (const auto& upload : sink_.state().uploads) {
    if (upload.status / 100 != 2) continue;
    int64_t last = 0;
    try {
      for (const int64_t number : NumbersIn(upload.file)) {
        if (number <= last || number > static_cast<int64_t>(traffic_.last())) {
          lines->push_back(upload.target + " holds packet " + std::to_string(number) + " behind " +
                           std::to_string(last));
        }
        last = number;
      }
    } catch (const std::runtime_error& error) {
      lines->push_back(upload.target + ": " + error.what());
    }
  }
  sink_.Clear();
}

Lines WorldCapture::Check() {
  Lines lines = std::exchange(left_, {});
  // The manager takes what is there, and ends what still runs; a file that it forgot is an operator's to
  // drop.
  for (const auto& session : app_->List()) Ask(Upload(session.id));
  if (!WaitFor([this] { return app_->List().empty(); })) {
    for (const auto& session : app_->List()) {
      lines.push_back("capture " + session.id + " does not end: state " +
                      std::to_string(static_cast<int>(session.state)));
      static_cast<void>(app_->StopLocal(session.id));
    }
  }
  if (!WaitFor([this] {
        for (int number = 1; number <= asked_; ++number) {
          if (!Ended(number)) return false;
        }
        return true;
      })) {
    lines.emplace_back("a request for a capture has no answer");
  }
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [number, call] : calls_) {
      if (call.ends > 1) lines.push_back("request " + std::to_string(number) + " for a capture ended twice");
    }
    calls_.clear();
    asked_ = 0;
  }
  WaitFor([] { return sim::capture::Leftovers().empty(); });
  for (const std::string& left : sim::capture::Leftovers()) lines.push_back(left);
  CheckUploads(&lines);
  return lines;
}

Lines WorldCapture::CheckOne() {
  constexpr uint64_t kPackets = 7;
  const std::string id = "one" + std::to_string(++sessions_);
  Ask(Start(id, "cap_mode: 1 cap_duration: 3000 max_packets: " + std::to_string(kPackets)));
  if (!WaitFor([] { return CaptureHasBegun(); })) return {"a capture does not begin"};
  const uint64_t first = traffic_.Inject(kPoint, {}, kPackets, false);
  const auto captured = [&] {
    const auto session = app_->Find(id);
    return !session || session->state != Tarvik::SessionState::kRunning;
  };
  if (!WaitFor(captured)) return {"a capture with all its packets does not end"};
  Ask(Upload(id));
  if (!WaitFor([&] { return !app_->Find(id); })) return {"an upload does not end"};
  const auto uploads = sink_.state().uploads;
  if (uploads.empty()) return {"a capture file did not arrive"};
  std::vector<int64_t> wanted;
  for (uint64_t i = 0; i < kPackets; ++i) wanted.push_back(static_cast<int64_t>(first + i));
  Lines lines;
  if (NumbersIn(uploads.back().file) != wanted)
    lines.emplace_back("a capture file does not hold the packets sent");
  sink_.Clear();
  return lines;
}

}  // namespace zem::world
