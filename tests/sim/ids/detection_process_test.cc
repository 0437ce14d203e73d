// What the detection process sends is what it says it sends.

#include "sim/ids/detection_process.h"

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/un.h>

#include <fstream>
#include <memory>

#include "platform/core/unix_socket.h"
#include "sim/ids/ids_ledger.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

class DetectionProcessTest : public ::testing::Test {
 protected:
  void Listen() {
    socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, kMaxUnixPath);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  std::string Receive() {
    std::string line(65536, '\0');
    const ssize_t size = ::recv(socket.get(), line.data(), line.size(), 0);
    line.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return line;
  }

  const test::TempDir folder;
  const std::string path = folder.Path() + "/eve.socket";
  UniqueFd socket;
  IdsLedger ledger;
  DetectionProcess detection{path, folder.Path() + "/pcaps", ledger};
};

TEST_F(DetectionProcessTest, LinesAreJsonAndCapturesAreThereBeforeTheirNotice) {
  EXPECT_EQ(detection.SendAlerts({}, 1), 0U) << "nobody listens";
  EXPECT_EQ(detection.counters().refused, 1U);
  Listen();
  EXPECT_EQ(detection.SendAlerts({}, 1), 1U);
  EXPECT_TRUE(detection.SendCapture(5, 9, 3));
  for (int i = 0; i < 2; ++i) {
    const std::string line = Receive();
    cJSON* const json = cJSON_ParseWithOpts(line.c_str(), nullptr, 1);
    EXPECT_NE(json, nullptr) << line;
    cJSON_Delete(json);
  }
  char error[PCAP_ERRBUF_SIZE];
  pcap_t* const capture = pcap_open_offline((folder.Path() + "/pcaps/5.9.pcap").c_str(), error);
  ASSERT_NE(capture, nullptr) << error;
  pcap_pkthdr* header = nullptr;
  const u_char* packet = nullptr;
  int packets = 0;
  while (pcap_next_ex(capture, &header, &packet) == 1) ++packets;
  pcap_close(capture);
  EXPECT_EQ(packets, 3);
}

TEST_F(DetectionProcessTest, ReplayAnnouncesEachLineOfItsKind) {
  Listen();
  const std::string file = folder.Path() + "/lines";
  std::ofstream(file)
      << DetectionProcess::LineOf({}) << "\n\n"
      << R"({"event_type":"flow-snip","flow_id":18446744073709551557,"flow-snip":{"snip_ts_us":2}})"
      << "\n"
      << R"({"event_type":"stats"})"
      << "\n";
  EXPECT_EQ(detection.Replay(file), 3U);
  const DetectionProcess::Counters sent = detection.counters();
  EXPECT_EQ(sent.alerts, 1U);
  EXPECT_EQ(sent.notices, 1U);
  EXPECT_EQ(sent.other_lines, 1U);
  EXPECT_TRUE(std::ifstream(folder.Path() + "/pcaps/18446744073709551557.2.pcap").good());
  EXPECT_THROW(detection.Replay(folder.Path() + "/absent"), std::runtime_error);
}

}  // namespace
}  // namespace zem::sim
