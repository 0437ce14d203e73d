#include "app/zema/app/corvd_handler.h"

#include <gtest/gtest.h>

#include "app/zema/app/follow_ups.h"
#include "app/zema/core/health_record.h"
#include "platform/core/clock.h"
#include "sim/node/host_management.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

class NoPublisher : public HealthPublisher {
 public:
  bool SetProperty(const std::string&, const std::string&, const void*, size_t, uint32_t,
                   std::string*) override {
    return true;
  }
  bool RemoveProperty(const std::string&, const std::string&, std::string*) override { return true; }
  bool SecurityOnly() override { return false; }
};

class CorvdHandlerTest : public ::testing::Test {
 protected:
  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  test::TempDir directory_;
  const std::string socket_ = directory_.Path() + "/corvd";
};

TEST_F(CorvdHandlerTest, AWaiterIsWokenWhenTheDaemonOpensItsSocket) {
  CorvdHandler handler(health_, socket_);
  handler.Start();
  EXPECT_FALSE(handler.WaitForCorvdConnection(1));
  sim::HostManagement daemon(socket_);
  EXPECT_TRUE(handler.WaitForCorvdConnection(30));
  daemon.Stop();
  daemon.Start();
  while (daemon.state().connections < 2) SleepFor(std::chrono::milliseconds(10));
}

TEST_F(CorvdHandlerTest, TheEndOfTheHandlerEndsTheWait) {
  FollowUps follow_ups;
  auto handler = std::make_unique<CorvdHandler>(health_, socket_);
  handler->Start();
  follow_ups.SetHostManagement(handler.get());
  ::zem::Thread waiter([&] { follow_ups.WaitForHostManagement(600); });
  SleepFor(std::chrono::milliseconds(50));
  follow_ups.SetHostManagement(nullptr);
  waiter.Join();
  handler.reset();
  follow_ups.WaitForHostManagement(600);  // nobody to wait for
}

}  // namespace
}  // namespace zem::zema
