#include "app/pktcap/exporter/pktcap_exporter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <boost/intrusive_ptr.hpp>
#include <filesystem>

#include "app/pktcap/stream/file_output.h"
#include "platform/core/thread.h"
#include "tests/app/pktcap/pcap_bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using test_pcap::Header;
using test_pcap::Record;

const std::string kPackets = Record(1, 1, "aaaa") + Record(1, 2, "bbbb") + Record(1, 3, "cccc");

CaptureLimits Limit(uint64_t packets, uint64_t bytes) {
  CaptureLimits limits;
  limits.packets = packets;
  limits.bytes = bytes;
  return limits;
}

// Runs the loop over a stream that is there as a whole.
CaptureLoop::Failure RunLoop(const std::string& stream, const CaptureLimits& limits, const std::string& file,
                             bool tool_lives = true) {
  int output[2];
  int errors[2];
  EXPECT_EQ(::pipe2(output, O_CLOEXEC | O_NONBLOCK), 0);
  EXPECT_EQ(::pipe2(errors, O_CLOEXEC | O_NONBLOCK), 0);
  UniqueFd read_output(output[0]);
  UniqueFd read_errors(errors[0]);
  EXPECT_EQ(::write(output[1], stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
  ::close(output[1]);
  ::close(errors[1]);
  pid_t capture = -1;
  if (tool_lives && (capture = ::fork()) == 0) {
    for (;;) ::pause();
  }
  const pid_t child = capture;
  const std::atomic<bool> stop{false};
  FileOutput out(UniqueFd(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)));
  const CaptureLoop::Failure failure =
      CaptureLoop("s", limits, {&read_output, &read_errors, "", &capture, &stop, -1}, out).Run();
  if (child > 0) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  return failure;
}

TEST(CaptureLoopTest, EndsWhereItHasTo) {
  const test::LogCapture log;
  const test::TempDir dir;
  constexpr uint64_t kMany = CaptureLimits::kUnlimited;
  std::string huge = Record(1, 4, "d");
  huge.replace(8, 4, "\xff\xff\xff\xff");
  struct Case {
    const char* what;
    std::string stream;
    CaptureLimits limits;
    const char* failure;
    std::string file;
  };
  for (const Case& c : {
           Case{"the whole stream", Header() + kPackets, Limit(kMany, kMany), nullptr, Header() + kPackets},
           Case{"a limit in the middle of a read", Header() + kPackets, Limit(2, kMany), nullptr,
                Header() + kPackets.substr(0, 40)},
           Case{"the packet that crosses the limit counts", Header() + kPackets, Limit(kMany, 5), nullptr,
                Header() + kPackets.substr(0, 40)},
           Case{"no packet wanted", Header() + kPackets, Limit(0, kMany), nullptr, ""},
           Case{"half a packet", Header() + kPackets + Record(1, 4, "dddd").substr(0, 18),
                Limit(kMany, kMany), nullptr, Header() + kPackets},
           Case{"a length that is none", Header() + kPackets + huge, Limit(kMany, kMany),
                "unsupported file format.", Header() + kPackets},
           Case{"another kind of file", "\x0a\x0d\x0d\x0a" + Header(), Limit(kMany, kMany),
                "unsupported file format.", ""},
           Case{"nothing", "", Limit(kMany, kMany), nullptr, ""},
       }) {
    const auto failure = RunLoop(c.stream, c.limits, dir.Path("f"));
    EXPECT_STREQ(failure.text, c.failure) << c.what;
    EXPECT_EQ(failure.fatal, c.failure != nullptr) << c.what;
    EXPECT_EQ(dir.Read("f"), c.file) << c.what;
  }
  EXPECT_STREQ(RunLoop("", {}, dir.Path("f"), false).text, "pktcap-uw: failed to launch");
}

// Tools of the shell: the capturing one writes `stream` into the pipe, the filter passes everything.
class ExporterTest : public ::testing::Test {
 protected:
  ExporterTest() {
    dir_.Write("stream", Header() + kPackets);
    SetTool("capture", "while [ \"$1\" != -o ]; do shift; done\ncat " + dir_.Path("stream") + " > \"$2\"\n");
    SetTool("filter", "exec cat \"$2\"\n");
    host_.tools.capture = dir_.Path("capture");
    host_.tools.filter = dir_.Path("filter");
    host_.tools.pipe = dir_.Path("pipe.XXXXXX");
    limits_.duration_s = 60;
  }

  void SetTool(const std::string& name, const std::string& text) {
    std::filesystem::permissions(dir_.Write(name, "#!/bin/sh\n" + text), std::filesystem::perms::owner_all);
  }
  boost::intrusive_ptr<PktcapExporter> Make() {
    boost::intrusive_ptr<PktcapExporter> exporter(new PktcapExporter("s", limits_, host_));
    EXPECT_EQ(exporter->SetParameter("dvfilter", "nic-1"), 0);
    exporter->SetOutputFile(dir_.Path("file"));
    return exporter;
  }
  bool PipeIsGone() const {
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      if (entry.is_fifo()) return false;
    }
    return true;
  }
  bool NoChildIsLeft() const { return ::waitpid(-1, nullptr, WNOHANG) == -1; }

  test::LogCapture log_;
  test::TempDir dir_;
  CaptureParameters::Host host_;
  CaptureLimits limits_;
};

TEST_F(ExporterTest, ChainsTheToolsIntoAFile) {
  const auto exporter = Make();
  EXPECT_EQ(exporter->Run(), 0);
  EXPECT_EQ(dir_.Read("file"), Header() + kPackets);
  EXPECT_TRUE(log_.Contains("Session s: return value 0 in "));
  EXPECT_TRUE(log_.Contains("packets:3, size: 12"));
  EXPECT_TRUE(PipeIsGone());
  EXPECT_TRUE(NoChildIsLeft());
}

// The filter waits in its opening of the pipe for a tool that is dead.
TEST_F(ExporterTest, ACaptureToolThatDiesEarlyFailsTheSession) {
  SetTool("capture", "exit 1\n");
  const auto exporter = Make();
  EXPECT_EQ(exporter->Run(), -1);
  EXPECT_EQ(exporter->error_text(), "pktcap-uw: failed to launch");
  EXPECT_EQ(exporter->error_code(), 4);
  EXPECT_TRUE(PipeIsGone());
  EXPECT_TRUE(NoChildIsLeft());
}

// An expression that the filter does not take would pass for a quiet link.
TEST_F(ExporterTest, AFilterThatEndsAtOnceIsInTheLog) {
  SetTool("capture", "exec sleep 1000\n");
  SetTool("filter", "echo 'syntax error' >&2\nexit 1\n");
  EXPECT_EQ(Make()->Run(), 0);
  EXPECT_TRUE(log_.Contains("Session s: the filter has ended before its stream began: syntax error"));
}

// The end of the duration is a good end, with an empty file when nothing came.
TEST_F(ExporterTest, ADurationThatPassesIsNoFailure) {
  SetTool("capture", "exec sleep 1000\n");
  limits_.duration_s = 1;
  const auto exporter = Make();
  EXPECT_EQ(exporter->Run(), 0);
  EXPECT_EQ(exporter->error_text(), "export task finished with timeout");
  EXPECT_EQ(dir_.Read("file"), Header());
  EXPECT_TRUE(NoChildIsLeft());
}

// Tools that hear nothing do not hold the end of a session for long.
TEST_F(ExporterTest, AStopEndsDeafTools) {
  SetTool("capture", "trap '' INT TERM\nwhile :; do read x < " + dir_.Path("") + "; done\n");
  SetTool("filter", "trap '' INT TERM\nwhile :; do read x < " + dir_.Path("") + "; done\n");
  const auto exporter = Make();
  int result = 1;
  NativeThread session([&] { result = exporter->Run(); });
  SleepFor(std::chrono::seconds(3));
  exporter->RequestStop();
  session.Join();
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(PipeIsGone());
  EXPECT_TRUE(NoChildIsLeft());
}

TEST_F(ExporterTest, AStreamHasAHeaderOfItsOwn) {
  const UniqueFd receiver(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  socklen_t size = sizeof(address);
  ASSERT_EQ(::bind(receiver.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ::getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&address), &size);
  const auto exporter = Make();
  exporter->SetOutputStream("::1", ntohs(address.sin6_port), false);
  EXPECT_EQ(exporter->Run(), 0);
  for (const std::string packet : {"aaaa", "bbbb", "cccc"}) {
    char bytes[256];
    const ssize_t got = ::recv(receiver.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    ASSERT_EQ(got, 28 + 4);
    EXPECT_EQ(std::string(bytes + 28, 4), packet);
  }
}

TEST_F(ExporterTest, WhatCannotBeginSaysWhy) {
  struct Case {
    const char* what;
    std::function<void()> spoil;
    std::string address;
    const char* text;
    int code;
  };
  for (const Case& c : {
           Case{"the file exists", [this] { dir_.Write("file", "x"); }, "", "open(): failed to open file", 4},
           Case{"no address", [] {}, "nowhere", "inet_pton(): invalid addr error", 6},
           Case{"no place for the pipe", [this] { host_.tools.pipe = dir_.Path("no/pipe.XXXXXX"); }, "",
                "mkfifo(): failed to create fifo file", 4},
           Case{"no filter", [this] { host_.tools.filter = dir_.Path("none"); }, "",
                "Popen(): failed to spawn process", 4},
           Case{"no tool", [this] { host_.tools.capture = dir_.Path("none"); }, "",
                "pktcap-uw: failed to launch", 4},
       }) {
    std::filesystem::remove(dir_.Path("file"));
    host_.tools.pipe = dir_.Path("pipe.XXXXXX");
    c.spoil();
    const auto exporter = Make();
    if (!c.address.empty()) exporter->SetOutputStream(c.address, 0, true);
    EXPECT_EQ(exporter->Run(), -1) << c.what;
    EXPECT_EQ(exporter->error_text(), c.text) << c.what;
    EXPECT_EQ(exporter->error_code(), c.code) << c.what;
    EXPECT_TRUE(log_.Contains("Session s: " + std::string(c.text)));
    EXPECT_TRUE(PipeIsGone()) << c.what;
    EXPECT_TRUE(NoChildIsLeft()) << c.what;
  }
}

}  // namespace
}  // namespace zem::Tarvik
