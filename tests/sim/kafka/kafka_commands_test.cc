#include "sim/kafka/kafka_commands.h"

#include <gmock/gmock.h>

#include "sim/control/command_table.h"
#include "sim/kafka/tls_front.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

using testing::HasSubstr;

TEST(KafkaCommandsTest, BrokersRunFromStartToStop) {
  const test::TempDir folder;
  KafkaService service(folder.Path("trust/"));
  CommandTable table;
  RegisterKafkaCommands(table, service);
  const auto run = [&table](const std::string& line) {
    std::string answer;
    table.Execute(line, Reply([&answer](Json json) { answer = JsonText(json.get()); }));
    return answer;
  };
  EXPECT_THAT(run("state"), HasSubstr("the brokers do not run"));
  EXPECT_THAT(run("start 10"), HasSubstr("1 to 9 brokers"));
  EXPECT_THAT(run("start 2"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(run("start 2"), HasSubstr("the brokers run"));
  EXPECT_THAT(folder.Read("trust/host-privkey.pem"), HasSubstr("PRIVATE KEY"));
  EXPECT_THAT(run("authority"), HasSubstr("BEGIN CERTIFICATE"));
  EXPECT_THAT(run("break sleepy"), HasSubstr("no fault"));
  EXPECT_THAT(run("slow -1"), HasSubstr("0 to 60000 ms"));
  EXPECT_THAT(run("read empty-topic"), HasSubstr("\"count\":0"));
  run("break down");
  EXPECT_THAT(run("read --wait 1 empty-topic"), HasSubstr("\"ok\":false"));
  EXPECT_THAT(run("stop"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(run("stop"), HasSubstr("the brokers do not run"));
}

// A port that is not replaced leads a client past TLS; bytes that only look like one must stay.
TEST(TlsFrontTest, PortsOfBrokersAreReplaced) {
  using namespace std::string_literals;
  std::string frames = "x127.0.0.1\0\0\x04\xd2y127.0.0.1\0\0\x04\xd3z127.0.0.1\0\0"s;
  ReplacePorts({{1234, 0xABCD}}, &frames);
  EXPECT_EQ(frames, "x127.0.0.1\0\0\xab\xcdy127.0.0.1\0\0\x04\xd3z127.0.0.1\0\0"s);
}

}  // namespace
}  // namespace zem::sim
