#include <gmock/gmock.h>

#include <boost/property_tree/ptree.hpp>
#include <cstring>
#include <fstream>

#include "app/ctxteng/engine/ctxt_options.h"
#include "app/ctxteng/guest/event_keys.h"
#include "app/ctxteng/guest/gcf_file.h"
#include "app/ctxteng/guest/library_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace Ctxt {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OptionsTest : public testing::Test {
 protected:
  bool Load(const std::string& body) {
    settings = {};
    boost::property_tree::ptree whole;
    boost::property_tree::ptree engine;
    return LoadCtxtOptions(folder.Write("options.xml", "<config><ctxteng>" + body + "</ctxteng></config>"),
                           &whole, &engine, &settings);
  }
  static std::string Metrics(const char* workers, const char* events, const char* port) {
    return std::string("<metrics><numWorkerThreads>") + workers + "</numWorkerThreads><maxEventsPerVm>" +
           events + "</maxEventsPerVm><listenPort>" + port + "</listenPort></metrics>";
  }
  static constexpr const char* kIdfwOn = "<clients><IdfwClient>true</IdfwClient></clients>";

  zem::test::LogCapture log;
  zem::test::TempDir folder;
  CtxtCore::Settings settings;
};

TEST_F(OptionsTest, LimitsOfTheStartParameters) {
  struct Case {
    const char* workers;
    const char* events;
    const char* port;
    bool good;
  };
  for (const Case& c :
       {Case{"4", "50", "48655", true}, Case{"1234", "99", "1", true}, Case{"12345", "50", "48655", false},
        Case{"4", "123", "48655", false}, Case{"4", "50", "123456", false}, Case{"", "50", "48655", false},
        Case{"4", "", "48655", false}, Case{"4", "50", "", false}}) {
    log.Clear();
    EXPECT_EQ(Load(Metrics(c.workers, c.events, c.port) + kIdfwOn), c.good)
        << c.workers << c.events << c.port;
    EXPECT_EQ(log.Contains("CtxtEng: Usage: "), !c.good);
  }
  EXPECT_FALSE(Load(Metrics("4", "50", "48655")));
}

TEST_F(OptionsTest, FileThatIsNone) {
  boost::property_tree::ptree whole;
  boost::property_tree::ptree engine;
  for (const char* text : {"", "<config>", "<config><other/></config>", "not xml"})
    EXPECT_FALSE(LoadCtxtOptions(folder.Write("bad.xml", text), &whole, &engine, &settings)) << text;
  EXPECT_FALSE(LoadCtxtOptions(folder.Path("missing.xml"), &whole, &engine, &settings));
}

// Absent options keep their defaults, and the keys of a client count only while it is enabled.
TEST_F(OptionsTest, ValuesAndDefaults) {
  const std::string idfw =
      "<IdfwConfig><CacheLimit>7</CacheLimit><AckTimeout>x</AckTimeout><TimerInterval>-1</"
      "TimerInterval><WellKnownSids><!-- the system -->"
      "<Sid>S-1-5-18</Sid><Sid>S-1-5-19</Sid></WellKnownSids></IdfwConfig>";
  ASSERT_TRUE(Load(Metrics("4", "50", "48655") + kIdfwOn + idfw +
                   "<CoreConfig><EnableProcessHash>false</EnableProcessHash></CoreConfig>"));
  EXPECT_EQ(settings.client_ids, kIdfwBit);
  EXPECT_EQ(settings.param.cacheLimit, 7u);
  EXPECT_EQ(settings.param.ackTimeout, 10u);
  EXPECT_EQ(settings.param.timerInterval, 60u);
  EXPECT_FALSE(settings.param.enableProcessHash);
  EXPECT_TRUE(settings.param.useOldProcessHashMethod);
  EXPECT_THAT(settings.param.wellKnownSids, ElementsAre("S-1-5-18", "S-1-5-19"));

  ASSERT_TRUE(Load(Metrics("4", "50", "48655") + kIdfwOn +
                   "<IdfwConfig><CacheLimit>0</CacheLimit><MaxBackoffCounter>0</MaxBackoffCounter></"
                   "IdfwConfig>"));
  EXPECT_EQ(settings.param.cacheLimit, 1000u);
  EXPECT_EQ(settings.param.maxBackoffCounter, 8u);
  EXPECT_TRUE(log.Contains("IdfwConfig.CacheLimit must be greater than 0, using default of 1000"));

  ASSERT_TRUE(
      Load(Metrics("4", "50", "48655") + "<clients><sampleClient>true</sampleClient></clients>" + idfw));
  EXPECT_EQ(settings.client_ids, kSampleBit);
  EXPECT_EQ(settings.param.cacheLimit, 1000u);
  EXPECT_THAT(settings.param.wellKnownSids, IsEmpty());
}

// A default of the table that is not the one of the code would change what a file leaves out.
TEST_F(OptionsTest, DefaultsOfTheTableAreThoseOfTheCode) {
  ASSERT_TRUE(Load(Metrics("4", "50", "48655") +
                   "<clients><IdfwClient>1</IdfwClient><IdsClient>1</IdsClient><ZemiClient>1</ZemiClient>"
                   "</clients><IdsConfig><criticalQSize/><nonCriticalQSize/><kafkaQSize/><extLogQSize/>"
                   "<criticalSendFreqS/><nonCriticalSendFreqS/><sendKafkaFreqS/><sendPcapKafkaFreqS/>"
                   "<extLogSendFreqS/><pcapCleanFreq/><idsCriticalSeverity/><idsSocketName/>"
                   "<idsSocketRecvLen/><extLogSocketName/></IdsConfig>"));
  const auto numbers = [](const CtxtClientParam& p) {
    const IdsParam& i = p.ids;
    return std::vector<uint32_t>{p.userMetadataCacheSize,
                                 p.enableProcessHash,
                                 p.useOldProcessHashMethod,
                                 p.cacheLimit,
                                 p.timerInterval,
                                 p.ackTimeout,
                                 p.cacheThreshold,
                                 p.maxBackoffCounter,
                                 p.networkEventQueueSize,
                                 p.vmEventQueueSize,
                                 p.userEventQueueSize,
                                 i.criticalQSize,
                                 i.nonCriticalQSize,
                                 i.kafkaQSize,
                                 i.extLogQSize,
                                 i.criticalPcapQSize,
                                 i.nonCriticalPcapQSize,
                                 i.pcapKafkaQSize,
                                 i.criticalSendFreqS,
                                 i.nonCriticalSendFreqS,
                                 i.criticalSendPcapFreqS,
                                 i.nonCriticalSendPcapFreqS,
                                 i.maxPcapsPerProto,
                                 i.sendKafkaFreqS,
                                 i.sendPcapKafkaFreqS,
                                 i.extLogSendFreqS,
                                 i.pcapCleanFreq,
                                 i.idsCriticalSeverity,
                                 i.idsSocketRecvLen,
                                 i.rateLimitThresholdCrit,
                                 i.rateLimitThresholdNonCrit,
                                 i.rateLimitExpirationSecs};
  };
  EXPECT_EQ(numbers(settings.param), numbers(CtxtClientParam()));
  EXPECT_EQ(settings.param.ids.pcapDirPath, IdsParam().pcapDirPath);
  EXPECT_EQ(settings.param.ids.idsSocketName, IdsParam().idsSocketName);
  EXPECT_EQ(settings.param.ids.extLogSocketName, IdsParam().extLogSocketName);
}

TEST_F(OptionsTest, IntrusionDetectionNeedsItsOptions) {
  const std::string head = Metrics("4", "50", "48655") + "<clients><IdsClient>true</IdsClient></clients>";
  const std::string needed =
      "<criticalQSize>0</criticalQSize><nonCriticalQSize>9</nonCriticalQSize><kafkaQSize>1</kafkaQSize>"
      "<extLogQSize>1</extLogQSize><criticalSendFreqS>1</criticalSendFreqS><nonCriticalSendFreqS>1"
      "</nonCriticalSendFreqS><sendKafkaFreqS>1</sendKafkaFreqS><sendPcapKafkaFreqS>1</sendPcapKafkaFreqS>"
      "<extLogSendFreqS>1</extLogSendFreqS><pcapCleanFreq>1</pcapCleanFreq><idsCriticalSeverity>1"
      "</idsCriticalSeverity><idsSocketName></idsSocketName><idsSocketRecvLen>1</idsSocketRecvLen>"
      "<extLogSocketName>/x</extLogSocketName>";
  ASSERT_TRUE(Load(head + "<IdsConfig>" + needed + "</IdsConfig>"));
  EXPECT_EQ(settings.param.ids.criticalQSize, 500u);
  EXPECT_TRUE(log.Contains("Critical queue size must be greater than 0, using default of 500"));
  EXPECT_EQ(settings.param.ids.nonCriticalQSize, 9u);
  EXPECT_TRUE(log.Contains("must be provided, using default path /var/log/zem-idps/eve.socket"));
  EXPECT_EQ(settings.param.ids.extLogSocketName, "/x");
  EXPECT_EQ(settings.param.ids.maxPcapsPerProto, 20u);
  EXPECT_FALSE(log.Contains("pcap per proto"));
  EXPECT_FALSE(Load(head + "<IdsConfig><criticalQSize>5</criticalQSize></IdsConfig>"));
}

// The file belongs to the guest's owner, who writes it as he likes.
TEST_F(OptionsTest, ConfigurationFileOfAGuest) {
  const std::string key = "50 2a 11 22 33 44 55 66-77 88 99 aa bb cc dd 01";
  struct Case {
    std::string text;
    std::string expected;
  };
  for (const Case& c : {Case{"a = b\r\nvc.uuid = \"" + key + "\"\r\n", key}, Case{"VC.UUID=" + key, key},
                        Case{"a=b=c\nnothing\n\nvc.uuid = " + key + "\nvc.uuid = other\n", key},
                        Case{"vc.uuid = a = b\n", ""}, Case{"", ""}, Case{std::string("\0\0=", 3), ""}}) {
    EXPECT_EQ(EndvatUtil::ReadVcUuidFromGcfFile(folder.Write("guest.conf", c.text)), c.expected) << c.text;
  }
  EXPECT_TRUE(log.Contains("EndvatUtil: Malformed string a=b=c in GCF File"));
  log.Clear();
  std::string noise;
  for (int i = 0; i < 1000; ++i) noise += "x\n";
  EXPECT_EQ(EndvatUtil::ReadVcUuidFromGcfFile(folder.Write("guest.conf", noise)), "");
  EXPECT_EQ(log.Count("Malformed string"), 20u);
  EXPECT_EQ(EndvatUtil::ReadVcUuidFromGcfFile("/dev/zero"), "");
  EXPECT_EQ(EndvatUtil::ReadVcUuidFromGcfFile(folder.Path("missing")), "");
  EXPECT_TRUE(log.Contains("file may not exist"));
  EXPECT_EQ(EndvatUtil::CanonicalVcUuid(key), "502a1122-3344-5566-7788-99aabbccdd01");
  EXPECT_EQ(EndvatUtil::CanonicalVcUuid(key.substr(1)), "");
}

// Descriptors that all point to one long text must not multiply it.
TEST(LibraryBufferTest, GroupsHaveNoMoreTextThanTheBuffer) {
  constexpr uint16_t kCount = 1000;
  constexpr uint32_t kLength = 20000;
  LibraryBuffer buffer;
  ASSERT_TRUE(buffer.Allocate(2 + 12 * kCount + kLength));
  std::memcpy(buffer.data(), &kCount, sizeof(kCount));
  char* const text = buffer.data() + 2 + 12 * kCount;
  std::memset(text, 'S', kLength);
  for (size_t i = 0; i < kCount; ++i) {
    std::memcpy(buffer.data() + 2 + 12 * i, &kLength, sizeof(kLength));
    std::memcpy(buffer.data() + 6 + 12 * i, &text, sizeof(text));
  }
  VmData vm;
  vm.os.os_type = kWindows;
  const Groups groups = GroupsOf(vm, buffer);
  EXPECT_EQ(groups.count, 1u);
  EXPECT_THAT(groups.sids, ElementsAre(std::string(kLength, 'S')));
}

TEST(LibraryBufferTest, TextsAreNarrowed) {
  EXPECT_EQ(Narrow(std::string_view("a", 1)), "a");
  EXPECT_EQ(Narrow(std::string_view("a\0", 2)), "a");
  EXPECT_EQ(Narrow(std::string_view("a\0b\0\0\0c\0", 8)), "ab");
  EXPECT_EQ(Narrow("plain"), "plain");
  EXPECT_EQ(Narrow(std::string_view("pl\0in", 5)), "pl");
  EXPECT_EQ(Narrow({}), "");
}

}  // namespace
}  // namespace Ctxt
