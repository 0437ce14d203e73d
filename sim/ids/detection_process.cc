#include "sim/ids/detection_process.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include "platform/core/unix_socket.h"
#include "sim/control/json.h"
#include "sim/ids/capture_writer.h"
#include "sim/ids/ids_ledger.h"

namespace zem::sim {
namespace {

constexpr int kPatienceSeconds = 5;
constexpr uint32_t kReplayedPackets = 5;

std::string Text(const cJSON* object, const char* name) {
  const cJSON* const item = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(item) ? item->valuestring : "";
}

// A number with all its digits, which the library's reader rounds.
uint64_t WholeNumber(const std::string& line, const char* name) {
  const size_t at = line.find("\"" + std::string(name) + "\":");
  return at == std::string::npos ? 0 : std::strtoull(line.c_str() + line.find(':', at) + 1, nullptr, 10);
}

std::string NoticeOf(uint64_t flow_id, uint64_t snip_ts_us) {
  return R"({"timestamp":"2026-01-01T00:00:00.000001+0000","flow_id":)" + std::to_string(flow_id) +
         R"(,"event_type":"flow-snip","src_ip":"10.1.2.3","src_port":51234,"dest_ip":"192.168.7.9",)"
         R"("dest_port":445,"proto":"TCP","app_proto":"smb","flow":{"bytes_toserver":480,)"
         R"("bytes_toclient":1200},"flow-snip":{"snip_ts_us":)" +
         std::to_string(snip_ts_us) +
         R"(},"zem_metadata":{"flow_dir":1,"user_id":0,"rule_id":3001,"profile_id":"p-1","vm_uuid":"vm-1"}})";
}

}  // namespace

DetectionProcess::DetectionProcess(std::string socket, std::string captures, IdsLedger& ledger)
    : socket_(std::move(socket)), captures_(std::move(captures)), ledger_(ledger) {
  std::error_code shown_by_the_first_capture;
  std::filesystem::create_directories(captures_, shown_by_the_first_capture);
  sender_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval patience{kPatienceSeconds, 0};
  ::setsockopt(sender_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

std::string DetectionProcess::LineOf(const AlertSpec& alert) {
  std::string line = R"({"timestamp":"2026-01-01T00:00:00.000001+0000","event_type":"alert","flow_id":)" +
                     std::to_string(alert.flow_id) + R"(,"src_ip":")" + alert.source + R"(","src_port":)" +
                     std::to_string(alert.source_port) + R"(,"dest_ip":")" + alert.destination +
                     R"(","dest_port":)" + std::to_string(alert.destination_port) +
                     R"(,"proto":"TCP","app_proto":"smb","direction":"to_server","snip_ts_us":)" +
                     std::to_string(alert.snip_ts_us) + R"(,"alert":{"action":"allowed","signature_id":)" +
                     std::to_string(alert.signature_id) +
                     R"(,"signature":"ET EXPLOIT possible probe","severity":)" +
                     std::to_string(alert.severity) + R"(,"target":{"ip":")" + alert.destination +
                     R"(","port":)" + std::to_string(alert.destination_port) +
                     R"(},"metadata":{"flip_endpoints":"false","detector_id":["17"],"ids_mode":["detect"]}},)"
                     R"("flow":{"bytes_toserver":480,"bytes_toclient":1200},)"
                     R"("http":{"hostname":"files.example","http_port":8080,"url":"http://files.example/a"},)"
                     R"("zem_metadata":{"session_dir":"destination","event_dir":"ingress","flow_src_ip":")" +
                     alert.source + R"(","flow_dest_ip":")" + alert.destination +
                     R"(","flow_dir":1,"user_id":)" + std::to_string(alert.user_id);
  if (alert.rule_id != 0) line += R"(,"rule_id":)" + std::to_string(alert.rule_id);
  return line + R"(,"profile_id":"p-1","vnic_id":4000,"vm_uuid":")" + alert.vm_uuid +
         R"(","lsp_uuid":"lsp-1"}})";
}

bool DetectionProcess::Send(const std::string& line, uint64_t Counters::*kind) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket_.copy(address.sun_path, zem::kMaxUnixPath);
  const ssize_t sent = ::sendto(sender_.get(), line.data(), line.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const bool taken = sent == static_cast<ssize_t>(line.size());
  ++(taken ? counters_.*kind : counters_.refused);
  return taken;
}

bool DetectionProcess::SendAlert(const AlertSpec& alert) {
  // Known before it can arrive.
  ledger_.AnnounceAlert(alert.signature_id, alert.vm_uuid, alert.source, alert.destination);
  return Send(LineOf(alert), &Counters::alerts);
}

uint64_t DetectionProcess::SendAlerts(const AlertSpec& alert, uint64_t count) {
  const std::lock_guard lock(mutex_);
  uint64_t taken = 0;
  for (uint64_t i = 0; i < count; ++i) taken += SendAlert(alert) ? 1 : 0;
  return taken;
}

uint64_t DetectionProcess::SendBurst(uint64_t count, uint32_t seed) {
  const std::lock_guard lock(mutex_);
  std::mt19937 random(seed);
  uint64_t taken = 0;
  for (uint64_t i = 0; i < count; ++i) {
    AlertSpec alert;
    alert.source = "10.9." + std::to_string(random() % 32) + "." + std::to_string(random() % 250 + 1);
    alert.signature_id = 2000000 + static_cast<uint32_t>(random() % 50);
    alert.severity = static_cast<int>(random() % 4) + 1;
    alert.vm_uuid = "vm-" + std::to_string(random() % 20);
    taken += SendAlert(alert) ? 1 : 0;
  }
  return taken;
}

bool DetectionProcess::SendNotice(const std::string& line, uint64_t flow_id, uint64_t snip_ts_us,
                                  uint32_t packets) {
  std::string bytes;
  if (packets > 0) {
    const std::string path =
        captures_ + "/" + std::to_string(flow_id) + "." + std::to_string(snip_ts_us) + ".pcap";
    bytes = WriteCapture(path, flow_id, packets);
  }
  ledger_.AnnounceCapture(flow_id, snip_ts_us, bytes);
  return Send(line, &Counters::notices);
}

bool DetectionProcess::SendCapture(uint64_t flow_id, uint64_t snip_ts_us, uint32_t packets) {
  const std::lock_guard lock(mutex_);
  return SendNotice(NoticeOf(flow_id, snip_ts_us), flow_id, snip_ts_us, packets);
}

bool DetectionProcess::ReplayLine(const std::string& line) {
  const Json json(cJSON_Parse(line.c_str()));
  const std::string type = Text(json.get(), "event_type");
  if (type == "alert") {
    const cJSON* const alert = cJSON_GetObjectItemCaseSensitive(json.get(), "alert");
    const cJSON* const metadata = cJSON_GetObjectItemCaseSensitive(json.get(), "zem_metadata");
    ledger_.AnnounceAlert(static_cast<uint32_t>(WholeNumber(line, "signature_id")), Text(metadata, "vm_uuid"),
                          Text(json.get(), "src_ip"), Text(json.get(), "dest_ip"));
    return Send(line, alert == nullptr ? &Counters::other_lines : &Counters::alerts);
  }
  if (type == "flow-snip")
    return SendNotice(line, WholeNumber(line, "flow_id"), WholeNumber(line, "snip_ts_us"), kReplayedPackets);
  return Send(line, &Counters::other_lines);
}

uint64_t DetectionProcess::Replay(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  const std::lock_guard lock(mutex_);
  uint64_t taken = 0;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty()) taken += ReplayLine(line) ? 1 : 0;
  }
  return taken;
}

uint64_t DetectionProcess::SendGarbage() {
  const std::array<std::string, 12> lines = {
      "",
      "{}",
      "[1]",
      "null",
      std::string(64, '\0'),
      "{\"event_type\":\"stats\"}",
      "{\"event_type\":\"alert\"",
      "{\"event_type\":\"alert\",\"a\":" + std::string(1000, '['),
      std::string("\xff\xfe\0\1", 4),
      "{\"event_type\":\"alert\",\"src_port\":1e999,\"b\":\"\\ud800",
      "{\"event_type\":\"alert\",\"pad\":\"" + std::string(100000, 'x') + "\"}",
      "{\"event_type\":{\"event_type\":\"alert\"}}",
  };
  const std::lock_guard lock(mutex_);
  uint64_t taken = 0;
  for (const std::string& line : lines) taken += Send(line, &Counters::other_lines) ? 1 : 0;
  return taken;
}

DetectionProcess::Counters DetectionProcess::counters() const {
  const std::lock_guard lock(mutex_);
  return counters_;
}

}  // namespace zem::sim
