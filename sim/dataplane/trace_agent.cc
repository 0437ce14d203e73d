#include "sim/dataplane/trace_agent.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <filesystem>

#include "platform/core/uuid.h"
#include "proto/lcp/lcp.pb.h"
#include "sim/dataplane/dataplane_agent.h"

// All work is done by one thread, in the order of its due times; what arrives on the link is only queued for
// it.

namespace zem::sim {
namespace {

using orlane::zem::lcp::LcpDpMsg;
using orlane::zem::livetrace::LivetraceMetadataMsg;
using orlane::zem::livetrace::LivetraceRequestMsg;
using orlane::zem::traceflow::TraceflowPacketOutRequestMsg;

constexpr size_t kMostRounds = 10000;
constexpr uint32_t kMostPackets = 20000;
constexpr int32_t kDone = 0;
constexpr int32_t kNoSuchPort = 1;
constexpr int kSnapshot = 65535;

std::string FrameOf(const std::string& body) {
  DataplaneHeader header;
  header.length = static_cast<uint32_t>(DataplaneHeader::kSize + body.size());
  return header.Bytes() + body;
}

struct Close {
  void operator()(pcap_t* capture) const { pcap_close(capture); }
  void operator()(pcap_dumper_t* file) const { pcap_dump_close(file); }
};

bool WritePackets(const std::string& path, const std::vector<std::string>& packets) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  const std::unique_ptr<pcap_t, Close> capture(pcap_open_dead(DLT_EN10MB, kSnapshot));
  const std::unique_ptr<pcap_dumper_t, Close> file(pcap_dump_open(capture.get(), path.c_str()));
  if (file == nullptr) return false;
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::Process().WallNow().time_since_epoch())
          .count();
  int64_t at = now;
  for (const std::string& packet : packets) {
    pcap_pkthdr header{};
    header.ts.tv_sec = at / 1000000;
    header.ts.tv_usec = at % 1000000;
    header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
    pcap_dump(reinterpret_cast<u_char*>(file.get()), &header, reinterpret_cast<const u_char*>(packet.data()));
    ++at;
  }
  return pcap_dump_flush(file.get()) == 0;
}

}  // namespace

TraceAgent::TraceAgent(DataplaneAgent& link, std::string captures)
    : link_(link), captures_(std::move(captures)) {
  NativeThread::Options options;
  options.name = "traces";
  thread_ = NativeThread(std::move(options), [this] { Serve(); });
  link_.SetObserver({.frame =
                         [this](const DataplaneAgent::Frame& frame) {
                           LcpDpMsg message;
                           if (!message.ParseFromString(frame.body)) return;
                           const std::lock_guard lock(mutex_);
                           PostLocked(delay_, [this, message = std::move(message)] { Take(message); });
                         },
                     .end =
                         [this] {
                           const std::lock_guard lock(mutex_);
                           PostLocked(Duration(0), [this] { DropAll(); });
                         }});
}

TraceAgent::~TraceAgent() {
  link_.SetObserver({});
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.NotifyAll();
  }
  thread_.Join();
}

void TraceAgent::SetAnswers(Answers answers, int count) {
  const std::lock_guard lock(mutex_);
  answers_ = answers;
  answers_left_ = count;
}

void TraceAgent::SetDelay(Duration delay) {
  const std::lock_guard lock(mutex_);
  delay_ = delay;
}

std::vector<TraceAgent::Round> TraceAgent::rounds() const {
  const std::lock_guard lock(mutex_);
  return rounds_;
}

std::vector<TraceAgent::Session> TraceAgent::sessions() const {
  std::vector<Session> sessions;
  const std::lock_guard lock(mutex_);
  for (const auto& [key, running] : sessions_) sessions.push_back(running->session);
  return sessions;
}

std::vector<std::string> TraceAgent::handed_over() const {
  const std::lock_guard lock(mutex_);
  return handed_over_;
}

void TraceAgent::Serve() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (due_.empty()) {
      changed_.Wait(lock);
      continue;
    }
    const auto first = due_.begin();
    if (first->first > Clock::Process().Now()) {
      changed_.WaitUntil(lock, first->first);
      continue;
    }
    const auto work = std::move(first->second);
    due_.erase(first);
    lock.unlock();
    work();
    lock.lock();
  }
}

void TraceAgent::PostLocked(Duration delay, std::function<void()> work) {
  due_.emplace(Clock::Process().Now() + delay, std::move(work));
  changed_.NotifyAll();
}

TraceAgent::Answers TraceAgent::TakeAnswersLocked() {
  if (answers_left_ == 0) return Answers::kGood;
  if (answers_left_ > 0) --answers_left_;
  return answers_;
}

void TraceAgent::Take(const LcpDpMsg& message) {
  if (message.traceflow().has_packet_out_request() || message.livetrace().has_request()) {
    Answers answers;
    {
      const std::lock_guard lock(mutex_);
      answers = TakeAnswersLocked();
    }
    if (message.traceflow().has_packet_out_request())
      TakeRound(message.traceflow().packet_out_request(), answers);
    if (message.livetrace().has_request()) TakeSession(message.livetrace().request(), answers);
  }
  if (message.livetrace().has_delete_request()) {
    const uint64_t id = message.livetrace().delete_request().metadata().session_id();
    for (const uint32_t side : {0u, 1u}) {
      if (const auto session = Find(id, side)) Drop(session);
    }
  }
}

void TraceAgent::TakeRound(const TraceflowPacketOutRequestMsg& request, Answers answers) {
  const std::vector<Hop> hops = WalkPacket(request.source_port(), request.packet());
  {
    const std::lock_guard lock(mutex_);
    if (rounds_.size() == kMostRounds) rounds_.erase(rounds_.begin());
    rounds_.push_back({UuidText(request.round_id()), request.source_port(), Clock::Process().Now(),
                       hops.size(), answers != Answers::kSilent && answers != Answers::kCut});
  }
  LcpDpMsg status;
  status.set_version(1);
  auto& outcome = *status.mutable_traceflow()->mutable_packet_out_request_status();
  *outcome.mutable_round_id() = request.round_id();
  outcome.set_status(hops.empty() ? kNoSuchPort : kDone);
  if (!Misbehave(answers, status)) return;
  for (uint32_t i = 0; i < hops.size(); ++i) {
    LcpDpMsg message;
    message.set_version(1);
    auto& packet_in = *message.mutable_traceflow()->mutable_packet_in_request();
    auto& observation = *packet_in.mutable_observation();
    *observation.mutable_round_id() = request.round_id();
    observation.set_sequence(i);
    observation.set_component(hops[i].component);
    observation.set_component_name(hops[i].name);
    observation.set_action(static_cast<orlane::zem::traceflow::TraceflowAction>(hops[i].action));
    uint64_t mac = 0;
    for (const char c : request.packet().substr(0, 6)) mac = mac << 8 | static_cast<uint8_t>(c);
    packet_in.mutable_packet_metadata()->mutable_destination_mac()->set_address(mac);
    Send(message);
  }
}

void TraceAgent::TakeSession(const LivetraceRequestMsg& request, Answers answers) {
  const auto running = std::make_shared<Running>();
  running->answers = answers;
  running->count = request.count();
  running->trace = request.trace() || !request.count();
  Session& session = running->session;
  session.id = request.metadata().session_id();
  session.side = request.metadata().side() != 0 ? 1 : 0;
  session.name = request.session_name();
  session.port = request.source_port();
  session.upload_id = request.upload_id();
  session.packets = std::min(request.packets(), kMostPackets);
  if (request.capture()) {
    session.capture =
        "livetrace-" + std::to_string(session.id) + "-" + std::to_string(session.side) + ".pcap";
  }
  running->hops = WalkPacket(session.port, PacketBetween(session.port, std::nullopt));
  LcpDpMsg status;
  status.set_version(1);
  auto& outcome = *status.mutable_livetrace()->mutable_status();
  Name(*running, outcome.mutable_metadata());
  outcome.set_status(running->hops.empty() ? kNoSuchPort : kDone);
  if (!Misbehave(answers, status) || running->hops.empty()) return;
  Begin(running, std::chrono::milliseconds(request.duration_ms()));
}

void TraceAgent::Begin(const std::shared_ptr<Running>& running, Duration duration) {
  const std::lock_guard lock(mutex_);
  Session& session = running->session;
  session.at = Clock::Process().Now();
  auto& place = sessions_[{session.id, session.side}];
  if (place != nullptr) place->over = true;
  place = running;
  for (uint32_t i = 0; i < session.packets; ++i)
    PostLocked(duration * (i + 1) / (session.packets + 1), [this, running] { Sample(running); });
  PostLocked(duration, [this, running] { Finish(running); });
}

void TraceAgent::Sample(const std::shared_ptr<Running>& running) {
  uint32_t number;
  {
    const std::lock_guard lock(mutex_);
    if (running->over) return;
    number = static_cast<uint32_t>(running->packets.size());
    running->packets.push_back(PacketBetween(running->session.port, std::nullopt));
  }
  if (!running->trace) return;
  for (uint32_t i = 0; i < running->hops.size(); ++i) {
    LcpDpMsg message;
    message.set_version(1);
    auto& observation =
        *message.mutable_livetrace()->mutable_response()->mutable_trace_response()->add_observation();
    Name(*running, observation.mutable_metadata());
    observation.set_packet(number);
    observation.set_sequence(i);
    observation.set_component(running->hops[i].component);
    observation.set_component_name(running->hops[i].name);
    observation.set_action(static_cast<uint32_t>(running->hops[i].action));
    Send(message);
  }
}

void TraceAgent::Finish(const std::shared_ptr<Running>& running) {
  const Session& session = running->session;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(running->over, true)) return;
    sessions_.erase({session.id, session.side});
  }
  LcpDpMsg message;
  message.set_version(1);
  if (running->count) {
    auto& count = *message.mutable_livetrace()->mutable_response()->mutable_count_response();
    Name(*running, count.mutable_metadata());
    count.set_packets(running->packets.size());
    Send(message);
  }
  auto& barrier = *message.mutable_livetrace()->mutable_barrier();
  message.mutable_livetrace()->clear_response();
  Name(*running, barrier.mutable_metadata());
  if (!session.capture.empty() && WritePackets(captures_ + "/" + session.capture, running->packets)) {
    barrier.set_pcap_file_name(session.capture);
    const std::lock_guard lock(mutex_);
    handed_over_.push_back(session.capture);
  }
  if (!Send(message) && barrier.has_pcap_file_name()) {
    std::error_code ignored;
    std::filesystem::remove(captures_ + "/" + session.capture, ignored);
  }
}

// Its capture is only written at the end.
void TraceAgent::Drop(const std::shared_ptr<Running>& running) {
  const std::lock_guard lock(mutex_);
  running->over = true;
  sessions_.erase({running->session.id, running->session.side});
}

void TraceAgent::DropAll() {
  const std::lock_guard lock(mutex_);
  for (const auto& [key, running] : sessions_) running->over = true;
  sessions_.clear();
}

std::shared_ptr<TraceAgent::Running> TraceAgent::Find(uint64_t id, uint32_t side) const {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find({id, side});
  return found == sessions_.end() ? nullptr : found->second;
}

void TraceAgent::Name(const Running& running, LivetraceMetadataMsg* metadata) {
  metadata->set_session_id(running.session.id);
  const bool other = running.answers == Answers::kOtherSide;
  metadata->set_side(other ? 1 - running.session.side : running.session.side);
}

// Sends the status as the fault wants it.  Returns whether the request is served at all.
bool TraceAgent::Misbehave(Answers answers, const LcpDpMsg& status) {
  switch (answers) {
    case Answers::kSilent:
      return false;
    case Answers::kCut: {
      const std::string frame = FrameOf(status.SerializeAsString());
      static_cast<void>(link_.Send(frame.substr(0, frame.size() / 2), false));
      link_.CloseClient();
      return false;
    }
    case Answers::kGarbage:
      static_cast<void>(link_.Send(FrameOf("\xff\xff\xff\xff"), false));
      break;
    case Answers::kUnknownId: {
      LcpDpMsg unknown = status;
      if (unknown.has_traceflow()) {
        SetUuid(RandomUuid(),
                unknown.mutable_traceflow()->mutable_packet_out_request_status()->mutable_round_id());
      } else {
        auto* const metadata = unknown.mutable_livetrace()->mutable_status()->mutable_metadata();
        metadata->set_session_id(~metadata->session_id());
      }
      Send(unknown);
      break;
    }
    case Answers::kTwice:
      Send(status);
      break;
    case Answers::kGood:
    case Answers::kOtherSide:
      break;
  }
  return Send(status);
}

bool TraceAgent::Send(const LcpDpMsg& message) {
  return link_.Send(FrameOf(message.SerializeAsString()), false).empty();
}

std::string TraceAgent::Onboard(uint64_t id, const std::string& port, uint32_t packets) {
  const auto running = std::make_shared<Running>();
  running->session.id = id;
  running->session.port = port;
  running->hops = WalkPacket(port, PacketBetween(port, std::nullopt));
  if (running->hops.empty()) return "no such port";
  LcpDpMsg message;
  message.set_version(1);
  Name(*running, message.mutable_livetrace()->mutable_onboard()->mutable_metadata());
  if (!Send(message)) return "nobody is connected";
  // It ends by command: samples come now.
  {
    const std::lock_guard lock(mutex_);
    running->session.at = Clock::Process().Now();
    sessions_[{id, 0}] = running;
  }
  for (uint32_t i = 0; i < packets; ++i) Sample(running);
  return {};
}

std::string TraceAgent::Invalidate(uint64_t id, uint32_t side) {
  const auto running = Find(id, side);
  if (running == nullptr) return "no such session";
  Drop(running);
  LcpDpMsg message;
  message.set_version(1);
  Name(*running, message.mutable_livetrace()->mutable_invalidation()->mutable_metadata());
  return Send(message) ? "" : "nobody is connected";
}

std::string TraceAgent::End(uint64_t id, uint32_t side) {
  const auto running = Find(id, side);
  if (running == nullptr) return "no such session";
  Finish(running);
  return {};
}

}  // namespace zem::sim
