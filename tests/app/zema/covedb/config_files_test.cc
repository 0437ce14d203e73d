#include "app/zema/covedb/config_files.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

#include "proto/switching/switching.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;
using orlane::zem::switching::MaintenanceModeConfigMsg;

HostConfigMsg Config(const std::string& revision, size_t switches = 1) {
  HostConfigMsg config;
  config.set_id("c1");
  config.set_transport_node_id("t1");
  config.set_revision(revision);
  for (size_t i = 0; i < switches; ++i) config.add_host_switches()->set_name("switch " + std::to_string(i));
  return config;
}

class ConfigFilesTest : public testing::Test {
 protected:
  std::string Revision() {
    HostConfigMsg read;
    std::string error;
    return files.RetrieveHostConfigMsgFromFile(&read, &error) ? read.revision() : error;
  }

  test::TempDir folder;
  test::LogCapture log;
  ConfigFiles files{{folder.Path("host_config.bin"), folder.Path("host_config_mmode.bin")}};
};

TEST_F(ConfigFilesTest, AStoredMessageIsReadBackAndNoOtherFileIsLeft) {
  EXPECT_FALSE(files.HasHostConfigFile());
  EXPECT_EQ(Revision(), "Failed to open host config file to read.");
  ASSERT_EQ(files.PersistHostConfigToFile(Config("1")), 0);
  EXPECT_EQ(folder.Read("host_config.bin"), Config("1").SerializeAsString())
      << "no header: other tools read it";
  ASSERT_EQ(files.PersistHostConfigToFile(Config("2")), 0);
  EXPECT_EQ(Revision(), "2");
  MaintenanceModeConfigMsg mmode;
  mmode.set_state(1);
  ASSERT_EQ(files.PersistMmodeCfgToFile(mmode), 0);
  MaintenanceModeConfigMsg read;
  ASSERT_TRUE(files.RetrieveMmodeCfgMsgFromFile(&read, nullptr));
  EXPECT_EQ(read.state(), 1u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 2);
  EXPECT_EQ(files.DeleteConfigFiles(), 0);
  EXPECT_FALSE(files.HasHostConfigFile());
  EXPECT_FALSE(files.HasMmodeCfgFile());
  EXPECT_EQ(files.DeleteConfigFiles(), 0) << "again";
}

// Such a file may be left by a crash of another writer, by a disk that was full, or by a wrong copy.
TEST_F(ConfigFilesTest, ATornOrForeignFileIsReportedAndKept) {
  const std::string whole = Config("1", 20).SerializeAsString();
  const std::pair<const char*, std::string> files_of_others[] = {
      {"torn", whole.substr(0, whole.size() - 3)}, {"empty", ""},
      {"text", "{\"host_switches\": []}\n"},       {"unknown fields alone", std::string("\xf8\x07\x01", 3)},
      {"zeros", std::string(4096, '\0')},
  };
  for (const auto& [name, bytes] : files_of_others) {
    log.Clear();
    folder.Write("host_config.bin", bytes);
    EXPECT_EQ(Revision(), "Failed to parse config file.") << name;
    EXPECT_TRUE(log.Contains("MPA44064")) << name;
    EXPECT_EQ(folder.Read("host_config.bin"), bytes) << name;
  }
  std::filesystem::remove(folder.Path("host_config.bin"));
  std::filesystem::create_directory(folder.Path("host_config.bin"));
  EXPECT_EQ(Revision(), "Failed to parse config file.");
  EXPECT_EQ(files.PersistHostConfigToFile(Config("2")), -1);
  EXPECT_TRUE(log.Contains("MPA44062"));
  EXPECT_EQ(files.DeleteHostConfigFile(), -1);
  EXPECT_TRUE(log.Contains("MPA44065"));
}

class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, SIG_DFL);
  }

 private:
  rlimit before_{};
};

// The store may answer a removal long after the node has got its next configuration.
TEST_F(ConfigFilesTest, ALateEndLeavesTheMarkOfANewerApplication) {
  ASSERT_TRUE(files.apply_mark().Begin({}));
  const uint64_t first = files.apply_mark().number();
  UnfinishedApply second;
  second.leaving_vifs = {"v1", "v2"};
  ASSERT_TRUE(files.apply_mark().Begin(second));
  files.apply_mark().End(first);
  ASSERT_TRUE(files.apply_mark().Unfinished());
  EXPECT_EQ(files.apply_mark().Unfinished()->leaving_vifs, second.leaving_vifs);
  files.apply_mark().End(files.apply_mark().number());
  EXPECT_FALSE(files.apply_mark().Unfinished());
}

// A disk that fills up in the middle of a write must cost the new configuration, not the old one.
TEST_F(ConfigFilesTest, AFullDiskLeavesTheOldFile) {
  ASSERT_EQ(files.PersistHostConfigToFile(Config("1")), 0);
  {
    const FileSizeLimit full(1000);
    EXPECT_EQ(files.PersistHostConfigToFile(Config("2", 1000)), -1);
  }
  EXPECT_TRUE(log.Contains("MPA44062"));
  EXPECT_TRUE(log.Contains("] Failed to write to the host config file [" + folder.Path("host_config.bin") +
                           "], error ["));
  EXPECT_EQ(Revision(), "1");
  EXPECT_FALSE(std::filesystem::exists(folder.Path("host_config.bin.tmp")));
  EXPECT_EQ(files.PersistHostConfigToFile(Config("2", 1000)), 0);
  EXPECT_EQ(Revision(), "2");
}

TEST_F(ConfigFilesTest, FilesLeftByAKilledWriterDoNotPreventTheNextWrite) {
  folder.Write("host_config.bin.tmp", std::string(100000, 'x'));
  ASSERT_EQ(files.PersistHostConfigToFile(Config("3")), 0);
  EXPECT_EQ(Revision(), "3");
  std::filesystem::remove_all(folder.Path());
  EXPECT_EQ(files.PersistHostConfigToFile(Config("4")), -1);
  EXPECT_TRUE(log.Contains("MPA44061"));
}

TEST_F(ConfigFilesTest, TheChecksumIsOfTheFieldsThatAreThereInTheirOrder) {
  constexpr const char* kOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  EXPECT_EQ(Sha256Hex("abc"), kOfAbc);
  HostConfigMsg config;
  config.set_revision("c");
  config.set_id("b");
  config.set_transport_node_id("a");
  config.set_store_text("not part of it");
  EXPECT_EQ(ComputeChecksum(config), kOfAbc);
  config.clear_id();
  EXPECT_EQ(ComputeChecksum(config), Sha256Hex("ac"));
  EXPECT_EQ(ComputeChecksum(HostConfigMsg()), Sha256Hex(""));
}

}  // namespace
}  // namespace zem::zema
