#include "app/ctxteng/kafka/kafka_owner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "app/ctxteng/kafka/config_worker.h"
#include "platform/core/stop_signal.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt::PaceClient {
namespace {

using testing::ElementsAre;

constexpr const char* kFile = "kafka-broker-cert-tarvik.pem";

// One owner's end must not take the file away from another one's next client.
TEST(KafkaOwnerTest, TheCertificatesFileStaysUntilItsLastOwnerLetsGo) {
  const zem::test::LogCapture log;
  const zem::test::TempDir folder;
  const zem::test::TempDir other;
  KafkaDeliveries deliveries;
  KafkaOwner first(nullptr, deliveries);
  KafkaOwner second(nullptr, deliveries);
  const auto take = [](KafkaOwner& owner, const zem::test::TempDir& trust_store, const std::string& text) {
    owner.Rebuild([&](KafkaConfig& config) {
      config.trust_store = trust_store.Path() + "/";
      config.certificate = text;
    });
  };
  first.Rebuild([](KafkaConfig& config) { config.event_topic = "t"; });
  EXPECT_TRUE(std::filesystem::is_empty(folder.Path())) << "no certificate, no file";
  take(first, folder, "one");
  take(second, folder, "two");
  EXPECT_EQ(folder.Read(kFile), "two");
  // It writes what it has before it makes its next client.
  first.Rebuild([](KafkaConfig& config) { config.event_topic = "u"; });
  EXPECT_EQ(folder.Read(kFile), "one");
  first.ForgetBrokers();
  EXPECT_TRUE(std::filesystem::exists(folder.Path(kFile)));
  EXPECT_EQ(first.config().event_topic, "u");
  EXPECT_EQ(first.client(), nullptr);
  take(second, other, "two");
  EXPECT_FALSE(std::filesystem::exists(folder.Path(kFile))) << "moved to another trust store";
  second.Shutdown();
  EXPECT_FALSE(std::filesystem::exists(other.Path(kFile)));
  EXPECT_EQ(second.config().trust_store, "");
}

// A store that floods the node with changes must neither fill its memory nor leave it with an old state.
TEST(ConfigWorkerTest, TheNewestOfEachKindIsKept) {
  const zem::test::LogCapture log;
  ConfigWorker worker;
  std::vector<int> done;
  worker.Post(1, [&] { done.push_back(-1); });
  EXPECT_EQ(worker.waiting(), 0U) << "nobody has opened it";
  worker.Open();
  worker.Post(2, [&] { done.push_back(0); });
  worker.Post(1, [&] { done.push_back(1); });
  for (size_t i = 2; i < ConfigWorker::kMostTasks; ++i) worker.Post(3, [] {});
  worker.Post(1, [&] { done.push_back(2); });
  worker.Post(4, [&] { done.push_back(3); });
  EXPECT_EQ(worker.waiting(), ConfigWorker::kMostTasks);
  worker.Post(3, [] { throw std::runtime_error("a task"); });
  zem::StopSignal ended;
  worker.Post(3, [&] { ended.Stop(); });
  worker.Start();
  worker.Start();
  EXPECT_TRUE(ended.WaitFor(std::chrono::hours(1)));
  worker.Stop();
  EXPECT_THAT(done, ElementsAre(0, 2));
  EXPECT_TRUE(log.Contains("A change of configuration failed: a task"));
  worker.Post(1, [] { FAIL() << "stopped"; });
  worker.Start();
}

}  // namespace
}  // namespace Ctxt::PaceClient
