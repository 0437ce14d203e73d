// A simulated day of writes, reads and losses in random order.

#include <cstdlib>
#include <map>
#include <random>

#include "platform/core/random.h"
#include "tests/covedbclient/client_fixture.h"

namespace zem::covedb::test {
namespace {

class ClientEnduranceTest : public ClientFixture {
 protected:
  uint64_t Pick(uint64_t below) { return random() % below; }

  // An application: it mirrors the objects, and starts over when the channel comes up.
  void Mirror() {
    client->AddChannelStatusCallback([this](bool up) {
      if (up) mirror.clear();
    });
    ASSERT_TRUE(client->RegisterMonitorCallback(
        4,
        [this](const proto::MonitorUpdateMsg& update) {
          proto::ScenarioObjectMsg object;
          proto::ObjectOpMsg operation;
          ASSERT_TRUE(object.ParseFromString(update.object()) &&
                      operation.ParseFromString(update.operation()));
          if (operation.operation() == proto::ObjectOpMsg::SET) {
            mirror[object.id()] = object.number();
          } else {
            mirror.erase(object.id());
          }
        },
        nullptr, 1));
    ASSERT_TRUE(client->ConfigureMonitor({Watch(kType)}, {}, 4, 1));
  }

  void Write() {
    const std::string id = std::to_string(Pick(50));
    const auto number = static_cast<int64_t>(++written);
    proto::ModifyMsg change = Put(id);
    change.mutable_put_msg()->set_object(Object(id, number));
    if (Pick(5) == 0) {
      change = Delete(id);
      wanted.erase(id);
    } else {
      wanted[id] = number;
    }
    client->Modify(Requests({change}), [this, number] { done.push_back(number); });
  }

  void Read() {
    if (client->Get(
            {}, [this](const auto&, const Status&) { ++reads_answered; }, 0))
      ++reads;
  }

  void Disturb() {
    static constexpr const char* kCalls[] = {"Modify", "Monitor", "ConfigureMonitor", "Get"};
    switch (Pick(9)) {
      case 0:
        return network.Break(kEndpoint);
      case 1:
        return network.SetAway(kEndpoint, Pick(2) == 0);
      case 2:
        return network.Freeze(kEndpoint, Pick(2) == 0);
      case 3:
        return daemon->DropConnections();
      case 4:
        return daemon->faults().SetFrozen(Pick(2) == 0);
      case 5:
        return daemon->faults().SetStatus(kCalls[Pick(2) * 3], 1, static_cast<int>(Pick(4)));
      case 6:
        return daemon->faults().SetDelay(kCalls[Pick(4)], std::chrono::milliseconds(Pick(3000)));
      case 7:
        daemon->store().streams().End("", Status(StatusCode::kResyncRequired));
        return;
      default:
        client->EnableMonitorSessionCreation();
    }
  }

  void CalmDown() {
    network.SetAway(kEndpoint, false);
    network.Freeze(kEndpoint, false);
    daemon->faults().Clear();
    clock.RunFor(1min);
  }

  std::map<std::string, int64_t> AtStore() {
    std::map<std::string, int64_t> objects;
    proto::GetRequestMsg request;
    proto::GetResponseMsg response;
    request.add_object_request()->set_object_type(kType);
    EXPECT_TRUE(daemon->store().Get(request, &response).ok());
    for (const auto& object : response.object()) {
      proto::ScenarioObjectMsg message;
      EXPECT_TRUE(message.ParseFromString(object.object()));
      objects[message.id()] = message.number();
    }
    return objects;
  }

  std::mt19937_64 random;
  std::map<std::string, int64_t> wanted, mirror;
  uint64_t written = 0;
  int reads = 0, reads_answered = 0;
  std::vector<int64_t> done;
};

// At each quiet point nothing is lost, told twice or told out of order, and who watches sees what there is.
TEST_F(ClientEnduranceTest, ADayOfLosses) {
  const char* const given = std::getenv("ZEM_SEED");
  const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : RandomNumber();
  SCOPED_TRACE("ZEM_SEED=" + std::to_string(seed));
  random.seed(seed);
  Logger::logLevel.store(kLogError);
  Mirror();
  Connect();
  for (int quarter = 0; quarter < 96; ++quarter) {
    const TimePoint end = clock.Now() + 14min;
    while (clock.Now() < end) {
      clock.RunFor(std::chrono::milliseconds(Pick(40'000)));
      for (uint64_t i = Pick(4); i > 0; --i) Write();
      if (Pick(3) == 0) Read();
      if (Pick(3) == 0) Disturb();
    }
    CalmDown();
    ASSERT_EQ(client->state(), CoveDbClient::State::CONNECTED) << "quarter " << quarter;
    ASSERT_EQ(Pending(), 0) << "quarter " << quarter;
    ASSERT_EQ(done.size(), written) << "quarter " << quarter;
    ASSERT_TRUE(std::is_sorted(done.begin(), done.end())) << "quarter " << quarter;
    ASSERT_EQ(reads_answered, reads) << "quarter " << quarter;
    ASSERT_EQ(AtStore(), wanted) << "quarter " << quarter;
    ASSERT_EQ(mirror, wanted) << "quarter " << quarter;
    // A stream whose id was renewed while it was being asked for again lives on beside its successor.
    ASSERT_FALSE(daemon->store().streams().List().empty()) << "quarter " << quarter;
  }
  EXPECT_TRUE(exits.empty());
}

}  // namespace
}  // namespace zem::covedb::test
