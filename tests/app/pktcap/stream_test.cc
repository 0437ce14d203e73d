#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>

#include "app/pktcap/stream/capture_headers.h"
#include "app/pktcap/stream/datagram_output.h"
#include "app/pktcap/stream/file_output.h"
#include "app/pktcap/stream/rate_limit.h"
#include "tests/app/pktcap/pcap_bytes.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using test_pcap::Header;
using test_pcap::Record;

void Feed(PcapReader* reader, const std::string& bytes) {
  const auto space = reader->Space(bytes.size());
  std::memcpy(space.data(), bytes.data(), bytes.size());
  reader->Filled(bytes.size());
}

// A packet that is there only in part waits; a length that no packet has would let the buffer grow for ever.
TEST(PcapReaderTest, TakesWholePacketsOnly) {
  PcapReader reader;
  PcapRecord record;
  Feed(&reader, Header().substr(0, 20));
  EXPECT_EQ(reader.TakeHeader(), PcapReader::Taken::kAwaited);
  Feed(&reader, Header().substr(20) + Record(7, 8, "abc") + Record(7, 9, "defgh").substr(0, 20));
  ASSERT_EQ(reader.TakeHeader(), PcapReader::Taken::kWhole);
  EXPECT_EQ(reader.header(), Header());
  ASSERT_EQ(reader.TakeRecord(&record), PcapReader::Taken::kWhole);
  EXPECT_EQ(record.data, "abc");
  EXPECT_EQ(record.microseconds, 8u);
  EXPECT_EQ(record.original_length, 43u);
  EXPECT_EQ(reader.TakeRecord(&record), PcapReader::Taken::kAwaited);
  Feed(&reader, Record(7, 9, "defgh").substr(20));
  ASSERT_EQ(reader.TakeRecord(&record), PcapReader::Taken::kWhole);
  EXPECT_EQ(record.whole, Record(7, 9, "defgh"));

  std::string huge = Record(1, 1, "");
  const uint32_t length = PcapReader::kLargestPacket + 1;
  std::memcpy(&huge[8], &length, sizeof(length));
  Feed(&reader, huge);
  EXPECT_EQ(reader.TakeRecord(&record), PcapReader::Taken::kForeign);
}

// Byte orders and precisions of other hosts would be read as wrong times and lengths.
TEST(PcapReaderTest, KnowsItsFileByTheMagic) {
  struct Case {
    uint32_t magic;
    bool good;
  };
  for (const Case& c :
       {Case{0xa1b2c3d4, true}, {0x1a2b3c4d, true}, {0xd4c3b2a1, false}, {0xa1b23c4d, false}}) {
    PcapReader reader;
    std::string header = Header();
    std::memcpy(header.data(), &c.magic, sizeof(c.magic));
    Feed(&reader, header);
    EXPECT_EQ(reader.TakeHeader() == PcapReader::Taken::kWhole, c.good) << std::hex << c.magic;
  }
}

TEST(RateLimitTest, LetsTheRateThrough) {
  struct Case {
    uint64_t packets;
    uint64_t bytes;
    int64_t gap_ns;
    int passed;  // of 1000 packets of 100 bytes
  };
  for (const Case& c : {
           Case{0, RateLimit::kUnlimited, 0, 1000},
           Case{RateLimit::kUnlimited, 0, 0, 1000},
           // A packet of each ten: 1000 a second of 10,000.
           Case{1000, 0, 100'000, 112},
           // A second's worth of bytes of ten.
           Case{0, 100'000, 10'000'000, 1000},
           Case{0, 10'000, 10'000'000, 1000},
           Case{0, 5'000, 10'000'000, 501},
           // Of packets of one time one passes, and the next when a nanosecond has done nothing for it.
           Case{10, 0, 0, 1},
       }) {
    RateLimit limit(c.packets, c.bytes);
    int passed = 0;
    for (int64_t i = 0; i < 1000; ++i) passed += limit.Pass(1'000'000'000 + i * c.gap_ns, 100) ? 1 : 0;
    EXPECT_NEAR(passed, c.passed, c.passed / 10) << c.packets << " " << c.bytes << " " << c.gap_ns;
  }
  RateLimit back(10, 0);
  EXPECT_TRUE(back.Pass(5'000'000'000, 1));
  EXPECT_FALSE(back.Pass(1'000'000'000, 1))
      << "time that goes back empties nothing, and does not fill either";
  EXPECT_TRUE(back.Pass(6'000'000'000, 1));
}

TEST(CaptureHeadersTest, AreToTheByte) {
  const auto gre = [](bool incoming, uint32_t vni) {
    const auto header = GreHeader(incoming, vni);
    return std::string(header.begin(), header.end());
  };
  using std::string_literals::operator""s;
  EXPECT_EQ(gre(true, 0), "\x20\0\x65\x58\x02\0\0\0"s);
  EXPECT_EQ(gre(false, 0), "\x20\0\x65\x58\0\0\0\0"s);
  EXPECT_EQ(gre(true, 5), "\x20\0\x65\x58\x03\0\0\x05"s);
  EXPECT_EQ(gre(false, 0xffffff), "\x20\0\x65\x58\x01\xff\xff\xff"s);
  EXPECT_EQ(gre(false, 0x1000000), "\x20\0\x65\x58\0\0\0\0"s) << "more than 24 bits are no network";
  PcapRecord record;
  record.seconds = 0x01020304;
  record.microseconds = 5;
  record.captured_length = 60;
  record.original_length = 100;
  const auto header = CaptureHeader(record, 7);
  EXPECT_EQ(std::string(header.begin(), header.end()),
            "\0\x07\0\0\0\0\0\x50\x01\x02\x03\x04\0\0\0\x05\0\0\0\x3c\0\0\0\x64\0\0\0\x07"s);
}

// A full disk must leave a file that others read: without the half of a packet.
TEST(FileOutputTest, CutsBackToTheLastWholePacket) {
  const test::TempDir dir;
  UniqueFd file(::open(dir.Path("f").c_str(), O_WRONLY | O_CREAT, 0600));
  rlimit before;
  ::getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  const std::string packets = Record(1, 1, "aaaa") + Record(1, 2, "bbbb") + Record(1, 3, "cccc");
  const rlimit small{24 + 20 + 20 + 10, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &small);
  FileOutput output(std::move(file));
  const std::string header = Header();
  EXPECT_EQ(output.TakeHeader(header), nullptr);
  PcapReader reader;
  Feed(&reader, header + packets);
  static_cast<void>(reader.TakeHeader());
  PcapRecord record;
  while (reader.TakeRecord(&record) == PcapReader::Taken::kWhole) EXPECT_EQ(output.Take(record), nullptr);
  EXPECT_EQ(output.taken().packets, 3u);
  EXPECT_STREQ(output.Flush(), FileOutput::kWriteFailed);
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(dir.Read("f"), header + packets.substr(0, 40));
}

class DatagramOutputTest : public ::testing::Test {
 protected:
  DatagramOutputTest() : receiver_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(receiver_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    to_.length = sizeof(address);
    ::getsockname(receiver_.get(), reinterpret_cast<sockaddr*>(&to_.address), &to_.length);
  }

  std::unique_ptr<DatagramOutput> Make(DatagramOutput::Framing framing) {
    return std::make_unique<DatagramOutput>(UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)), to_,
                                            framing, true, 9);
  }
  void Take(DatagramOutput* output, const std::string& data) {
    PcapRecord record;
    record.captured_length = static_cast<uint32_t>(data.size());
    record.data = data;
    EXPECT_EQ(output->Take(record), nullptr);
  }
  std::string Receive() {
    char bytes[65536];
    const ssize_t got = ::recv(receiver_.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    return got < 0 ? "nothing" : std::string(bytes, static_cast<size_t>(got));
  }

  const UniqueFd receiver_;
  DatagramOutput::Receiver to_{};
};

// What has left counts, what waits does not; a step sends a bounded number, in order, and the queue ends
// empty.
TEST_F(DatagramOutputTest, SendsInOrderInSteps) {
  const auto output = Make(DatagramOutput::Framing::kGre);
  for (int i = 0; i < 600; ++i) Take(output.get(), "packet " + std::to_string(i));
  EXPECT_FALSE(output->HasRoom());
  EXPECT_EQ(output->sent().packets, 0u);
  int next = 0;
  for (const uint64_t sent : {256u, 512u, 600u}) {
    EXPECT_GE(output->waits_for(), 0);
    EXPECT_EQ(output->Flush(), nullptr);
    EXPECT_EQ(output->sent().packets, sent);
    for (std::string got = Receive(); got != "nothing"; got = Receive()) {
      EXPECT_EQ(got.substr(kGreHeaderSize), "packet " + std::to_string(next++));
    }
  }
  EXPECT_EQ(next, 600);
  EXPECT_EQ(output->sent().bytes, output->taken().bytes);
  EXPECT_EQ(output->waits_for(), -1);
}

// Longer than a datagram: cut in GRE, the receiver's error with a header.
TEST_F(DatagramOutputTest, PacketsLongerThanADatagram) {
  const std::string big(65'535, 'x');
  const auto gre = Make(DatagramOutput::Framing::kGre);
  Take(gre.get(), big);
  EXPECT_EQ(gre->Flush(), nullptr);
  EXPECT_EQ(Receive().size(), 65'507u);
  const auto header = Make(DatagramOutput::Framing::kCaptureHeader);
  Take(header.get(), big);
  EXPECT_STREQ(header->Flush(), DatagramOutput::kReceiverError);
}

}  // namespace
}  // namespace zem::Tarvik
