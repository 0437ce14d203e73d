// The raw lines, as another program's stream socket gets them.

#include <poll.h>

#include "tests/app/ctxteng/idsevents/engine_fixture.h"

namespace IdsEvtEng {
namespace {

using testing::ElementsAre;

class ExternalLoggerTest : public EngineTest {
 protected:
  ExternalLoggerTest() { services.external_logging = true; }

  void Listen() {
    ::unlink(param.extLogSocketName.c_str());
    listener = zem::OpenUnixStream(SOCK_NONBLOCK);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    param.extLogSocketName.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
  }
  void Accept() {
    reader.Reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    ASSERT_TRUE(reader);
  }
  // What is there.
  std::string Receive() {
    std::string all(1 << 20, '\0');
    const ssize_t length = ::recv(reader.get(), all.data(), all.size(), 0);
    all.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return all;
  }
  static std::string Line(int i) { return R"({"event_type":"alert","n":)" + std::to_string(i) + "}"; }

  zem::UniqueFd listener;
  zem::UniqueFd reader;
};

TEST_F(ExternalLoggerTest, LinesArriveWithTheirTenant) {
  Listen();
  Start();
  Seconds(10);
  Accept();
  Send(R"({"event_type":"alert","zem_metadata":{"rule_id":4}})");
  Send("no json");
  Send("{\"a\":1}\n");
  Seconds(34);
  EXPECT_EQ(Receive(), "");
  Seconds(1);
  EXPECT_EQ(
      Receive(),
      "{\"event_type\":\"alert\",\"zem_metadata\":{\"rule_id\":4},\"zem_tenancy\":\"[org=\\\"o\\\"]: \"}\n"
      "no json\n{\"a\":1}\n");
  EXPECT_TRUE(log.Contains("Sending batch of 3 events to external logging entity"));
  services.external_logging = false;
  Send(kAlert);
  Seconds(35);
  EXPECT_EQ(Receive(), "");
  EXPECT_TRUE(log.Contains("No events to send to ext log queue, returning"));
}

// A line that could not be sent is the first on the next connection, and nothing is sent twice.
TEST_F(ExternalLoggerTest, PeerThatGoesGetsTheLinesLater) {
  param.extLogSendFreqS = 5;
  Listen();
  Start();
  Seconds(10);
  Accept();
  Send(Line(1));
  Seconds(5);
  EXPECT_EQ(Receive(), Line(1) + "\n");
  reader.Reset();
  listener.Reset();
  Send(Line(2));
  Send(Line(3));
  Seconds(5);
  EXPECT_TRUE(log.Contains("Failed to send event to socket " + param.extLogSocketName + ", Broken pipe"));
  Seconds(30);
  EXPECT_TRUE(log.Contains("retry after 10 secs"));
  Listen();
  Seconds(10);
  Accept();
  Seconds(5);
  EXPECT_EQ(Receive(), Line(2) + "\n" + Line(3) + "\n");
}

TEST_F(ExternalLoggerTest, PeerThatDoesNotReadFillsTheQueueAlone) {
  param.extLogSendFreqS = 1;
  param.extLogQSize = 20;
  param.idsSocketRecvLen = 65536;
  Listen();
  Start();
  Seconds(10);
  Accept();
  const std::string large = R"({"event_type":"stats","x":")" + std::string(60000, 'x') + "\"}";
  for (int i = 0; i < 100; ++i) {
    Send(large);
    Seconds(1);
  }
  EXPECT_TRUE(log.Contains("Failed to add event to ext log queue, current size = 20, max size = 20"));
  Send(kAlert);
  Seconds(5);
  EXPECT_EQ(counters.manager.alert_sent, 1U) << "alerts go on";
  // Each line that the peer got is whole.
  std::string all;
  for (int i = 0; i < 200; ++i) {
    const std::string part = Receive();
    if (part.empty()) Seconds(1);
    all += part;
  }
  EXPECT_EQ(all.substr(0, large.size() + 1), large + "\n");
  EXPECT_EQ(all.size() % (large.size() + 1), 0U);
}

TEST_F(ExternalLoggerTest, EndsAfterFiftyTries) {
  Start();
  Seconds(499);
  EXPECT_FALSE(log.Contains("after 50 retries"));
  Seconds(1);
  EXPECT_EQ(log.Count("Socket connect failed, No such file or directory, retry after 10 secs"), 100U);
  EXPECT_TRUE(log.Contains("Failed to connect to socket " + param.extLogSocketName + " after 50 retries"));
  Listen();
  Seconds(1000);
  EXPECT_FALSE(log.Contains("Successfully connected to socket"));
  engine->Stop();
  EXPECT_FALSE(log.Contains("errorCode=\"CTX712\""));
}

TEST_F(ExternalLoggerTest, StopIsPromptWithAPeerThatDoesNotRead) {
  param.extLogSendFreqS = 1;
  param.idsSocketRecvLen = 65536;
  Listen();
  Start();
  Seconds(10);
  Accept();
  for (int i = 0; i < 20; ++i) Send(R"({"x":")" + std::string(60000, 'x') + "\"}");
  Seconds(3);
  const auto start = clock.Now();
  engine->Stop();
  EXPECT_EQ(clock.Now(), start);
  EXPECT_FALSE(log.Contains("errorCode=\"CTX712\""));
}

}  // namespace
}  // namespace IdsEvtEng
