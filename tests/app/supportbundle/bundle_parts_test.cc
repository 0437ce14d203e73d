#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/intrusive_ptr.hpp>
#include <filesystem>

#include "app/supportbundle/support_bundle_status_check_thread.h"
#include "app/supportbundle/temp_bundle_link_resource.h"
#include "app/supportbundle/upload_text.h"
#include "app/supportbundle/worker_info.h"
#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

// The process is root and the path comes out of a script: what is not surely the script's own file stays.
TEST(TempBundleLinkResourceTest, RemovesTheBundleAndNothingElse) {
  test::LogCapture log;
  const test::TempDir directory;
  const test::TempDir other;
  const auto removed = [](const std::string& path) {
    { const TempBundleLinkResource held(path); }
    return fs::symlink_status(path).type() == fs::file_type::not_found;
  };
  EXPECT_TRUE(removed(directory.Write("plain", "x")));
  EXPECT_TRUE(removed(directory.Path("missing")));
  EXPECT_EQ(log.Count("WARNING"), 0U);

  directory.Write("real", "x");
  fs::create_symlink("real", directory.Path("link"));
  EXPECT_TRUE(removed(directory.Path("link")));
  EXPECT_FALSE(fs::exists(directory.Path("real"))) << "the target is looked for beside the link";

  fs::create_directory(directory.Path("folder"));
  EXPECT_FALSE(removed(directory.Path("folder")));
  EXPECT_FALSE(removed(directory.Path(
      "../" + fs::path(directory.Write("up", "x")).parent_path().filename().string() + "/up")));
  EXPECT_FALSE(removed("/etc/passwd"));
  fs::create_symlink("/etc/passwd", directory.Path("outside"));
  EXPECT_TRUE(removed(directory.Path("outside")));
  EXPECT_TRUE(fs::exists("/etc/passwd"));

  // A folder that is a link could lead anywhere.
  fs::create_directory_symlink(other.Path(), directory.Path("detour"));
  other.Write("kept", "x");
  EXPECT_FALSE(removed(directory.Path("detour/kept")));
  EXPECT_GE(log.Count("is no temporary bundle and stays"), 4U);
}

// The upload script reads this to the byte.
TEST(UploadTextTest, StandsInOneLine) {
  BundleRequest request;
  request.generate_id = "g1";
  request.manager_server = "m";
  request.manager_port = 443;
  request.thumbprint = "aa";
  request.ipv4_address = "10.0.0.1 10.0.0.2";
  EXPECT_EQ(
      UploadText(request, "/tmp/b.tgz"),
      R"({"local_path": "/tmp/b.tgz", "generate_id": "g1", "manager_info": {"server": "m", "port": 443, )"
      R"("thumbprint": "aa", "fqdn_required": false, "fqdn": "", "ipv4_address": "10.0.0.1 10.0.0.2", )"
      R"("ipv6_address": ""}})");
  request.file_port = 22;
  request.file_server = "fs";
  request.file_protocol = "scp";
  request.file_directory = "/d";
  request.file_fingerprint = "ff";
  request.file_user = "u";
  request.file_password = "p\"\\";
  const auto text = UploadText(request, "/tmp/b.tgz");
  ASSERT_TRUE(text);
  EXPECT_TRUE(text->ends_with(
      R"("ipv6_address": ""}, "file_server_info": {"server": "fs", "port": 22, "uri": "/d/b.tgz", "protocol": )"
      R"({"name": "scp", "ssh_fingerprint": "ff", "authentication_scheme": {"scheme_name": "password", )"
      R"("username": "u", "password": "p"\"}}}})"));
  request.file_user = "u\nv";
  EXPECT_FALSE(UploadText(request, "/tmp/b.tgz")) << "another line would be another text";
}

// A manager that has gone must not leave a bundle in progress, or no other would ever be accepted.
TEST(StatusCheckTest, CancelsWhatNobodyAsksFor) {
  struct Case {
    BundleStatus before;
    BundleStatus after;
  };
  constexpr std::array kCases = {Case{BundleStatus::kRequested, BundleStatus::kCancelled},
                                 Case{BundleStatus::kInWork, BundleStatus::kBeingCancelled},
                                 Case{BundleStatus::kBeingCancelled, BundleStatus::kBeingCancelled},
                                 Case{BundleStatus::kAtManager, BundleStatus::kAtManager}};
  for (const Case& each : kCases) {
    SCOPED_TRACE(static_cast<int>(each.before));
    VirtualClock clock;
    test::LogCapture log;
    WorkerInfo info;
    const boost::intrusive_ptr<SupportBundleStatusCheckThread> checks(
        new SupportBundleStatusCheckThread(info));
    {
      LockWorkerInfo locked(info);
      locked.SetState(each.before);
      locked.Touch();
    }
    NativeThread thread([&] { checks->Run(); });
    clock.RunFor(seconds(2000));
    LockWorkerInfo(info).Touch();
    clock.RunFor(seconds(3000));
    EXPECT_EQ(LockWorkerInfo(info).state(), each.before) << "it was asked for less than 3000 seconds ago";
    clock.RunFor(seconds(6));
    EXPECT_EQ(LockWorkerInfo(info).state(), each.after);
    EXPECT_EQ(
        log.Contains("No status message received within last 3000.000000 seconds, canceling active request"),
        each.before != each.after);
    checks->Stop();
  }
}

}  // namespace
}  // namespace zem::Tarvik
