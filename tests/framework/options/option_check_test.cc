#include "framework/options/option_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "framework/options/option_table.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct OptionCheckTest : ::testing::Test {
  OptionCheck Check(const std::string& text) { return CheckOptions(directory.Write("tarvik.xml", text)); }
  static std::string Repeated(const std::string& text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i) all += text;
    return all;
  }
  test::TempDir directory;
};

// A fault that is told at another line, or not at all, sends the operator to the wrong place.
TEST_F(OptionCheckTest, EachFaultIsToldAtItsLine) {
  struct Case {
    const char* lines;
    int line;
    const char* key;
    const char* what;
  };
  for (const Case& c : {
           Case{"<log>\n<!-- a\n b -->\n<level>7</level></log>", 5, "log.level", "not 0 to 6; the default 5"},
           Case{"<log><level>-1</level></log>", 2, "log.level", "not 0 to 6"},
           Case{"<log><level>99999999999999999999</level></log>", 2, "log.level", "not 0 to 6"},
           Case{"<log><level>5x</level></log>", 2, "log.level", "not 0 to 6"},
           Case{"<app>\n<lldp>yes</lldp></app>", 3, "app.lldp", "not true or false; the default true"},
           Case{"<app>\n\n<ctxtegn>true</ctxtegn></app>", 4, "app.ctxtegn", "did you mean app.ctxteng?"},
           Case{"<sometimes/>", 2, "sometimes", "is no option, and is ignored"},
           Case{"<log.level>3</log.level>", 2, "log.level", "is no option, and is ignored"},
           Case{"<log><level>5<!-- and -->6</level></log>", 2, "log.level", "\"56\" is not"},
           Case{"<log><level><![CDATA[9]]></level></log>", 2, "log.level", "\"9\" is not"},
           Case{"<app><lldp>1</lldp>\n<lldp>0</lldp></app>", 3, "app.lldp", "the first one counts"},
           Case{"<app/>\n<app><lldp>0</lldp></app>", 3, "app", "only the first one counts"},
       }) {
    const OptionCheck check = Check(std::string("<config><tarvik>\n") + c.lines + "</tarvik></config>");
    ASSERT_EQ(check.faults.size(), 1u) << c.lines;
    EXPECT_EQ(check.faults[0].line, c.line) << c.lines;
    EXPECT_EQ(check.faults[0].key, c.key);
    EXPECT_THAT(check.faults[0].what, HasSubstr(c.what));
    EXPECT_FALSE(check.unusable);
  }
  EXPECT_THAT(FaultLines("f", Check("<config><tarvik>\n<x/></tarvik></config>")),
              HasSubstr("f:2: x is no option"));
  EXPECT_THAT(FaultLines("f", Check("<config><tarvik><x\x1b[2J/></tarvik></config>")),
              HasSubstr("f:1: x?[2J is no option"));
}

// The files of the daemon's parts have rules that the daemon's own does not have.
TEST_F(OptionCheckTest, EveryFileOfTheDaemonIsChecked) {
  const std::string engine =
      "<config><ctxteng>\n<metrics><numWorkerThreads>4</numWorkerThreads><maxEventsPerVm>50</maxEventsPerVm>"
      "<listenPort>48655</listenPort></metrics>\n";
  const std::string idfw = engine + "<clients><IdfwClient>true</IdfwClient></clients>\n";
  const std::string end = "</ctxteng></config>";
  const std::string agent = "<config><zemda>\n<CommunicationHandler><ackTimeout>";
  struct Case {
    std::string text;
    int line;
    const char* key;
    const char* what;
    bool unusable;
  };
  for (const Case& c : {
           Case{engine + end, 0, "", "sets none of clients.sampleClient, clients.IdfwClient", true},
           Case{idfw + "<IdfwConfig><CacheLimit>0</CacheLimit></IdfwConfig>" + end, 4,
                "IdfwConfig.CacheLimit", "not 1 to 4294967295; the default 1000 is taken", false},
           Case{idfw + "<metrcs/>" + end, 4, "metrcs", "is no option", false},
           Case{"<config><ctxteng>\n<clients><sampleClient>1</sampleClient></"
                "clients><metrics><maxEventsPerVm>50"
                "</maxEventsPerVm><listenPort>1</listenPort>\n<numWorkerThreads>12345</numWorkerThreads>"
                "</metrics>" +
                    end,
                3, "metrics.numWorkerThreads", "\"12345\" is not 1 to 4 characters; the file is not used",
                true},
           Case{agent + "3601</ackTimeout></CommunicationHandler></zemda></config>", 2,
                "CommunicationHandler.ackTimeout", "not 0 to 3600; 600 is taken", false},
           Case{agent + "soon</ackTimeout></CommunicationHandler></zemda></config>", 2,
                "CommunicationHandler.ackTimeout", "the default 1200 is taken", false},
           Case{"{\"zema\": {\n\"group\": \"runAsRoot\",\n\"runAsRoot\": \"yes\"}}", 3, "zema.runAsRoot",
                "\"yes\" is not true or false", false},
           Case{"{\"mp\": {\"vifOperationTimeout\":\n 10}}", 1, "mp.vifOperationTimeout", "25 is taken",
                false},
           Case{"{\n\"mp\": {\"lsIncomingWaitInBatch\": 5}}", 2, "mp.lsIncomingWaitInBatch",
                "(5) is greater than mp.lsAckBatchInterval (0), so the realization does not start", true},
           Case{"{\n\"lum\": {\"opaqueNetworkApplyMax\": 0}}", 2, "lum.opaqueNetworkApplyMax",
                "the file is not used", true},
           Case{"{\"resync\": {\n\"intervallInSec\": 5}}", 2, "resync.intervallInSec",
                "did you mean resync.intervalInSec?", false},
           Case{"{\"resync\": {\"intervalInSec\": 4294967296}}", 1, "resync.intervalInSec",
                "not a whole number of 32 bits; the default 3600 is taken", false},
           Case{"{\"resync.disabled\": true}", 1, "resync.disabled", "is no option", false},
           Case{"{\n\"mp\": {,}}", 2, "", "is not JSON", true},
       }) {
    const OptionCheck check = Check(c.text);
    ASSERT_EQ(check.faults.size(), 1u) << c.text << FaultLines("f", check);
    EXPECT_EQ(check.faults[0].line, c.line) << c.text;
    EXPECT_EQ(check.faults[0].key, c.key) << c.text;
    EXPECT_THAT(check.faults[0].what, HasSubstr(c.what));
    EXPECT_EQ(check.unusable, c.unusable) << c.text;
  }
  // Nobody reads the options of a client that is off; one that is on needs some.
  EXPECT_TRUE(Check(idfw + "<IdsConfig><kafkaQSize>x</kafkaQSize></IdsConfig>" + end).faults.empty());
  const OptionCheck ids = Check(engine + "<clients><IdsClient>1</IdsClient></clients>" + end);
  EXPECT_TRUE(ids.unusable);
  EXPECT_THAT(FaultLines("f", ids),
              HasSubstr("f: IdsConfig.kafkaQSize is missing, so the context engine does not start"));
}

// The daemon does not start with these, so the check may not call them good.
TEST_F(OptionCheckTest, UnusableFilesAreToldAsSuch) {
  for (const std::string& text :
       {std::string(), std::string("<config>"), std::string("<config><other/></config>"),
        std::string("<tarvik/>"), std::string("\0\xff", 2), std::string("<config><tarvik></config>"),
        "<config><tarvik>" + std::string(2 << 20, ' ') + "</tarvik></config>", Repeated("<a>", 100'000),
        Repeated("{\"a\":", 100'000)}) {
    const OptionCheck check = Check(text);
    EXPECT_TRUE(check.unusable) << text.substr(0, 40);
    EXPECT_EQ(check.faults.size(), 1u);
    EXPECT_THAT(check.json, HasSubstr("\"key\":\"log.level\""));
  }
  EXPECT_TRUE(CheckOptions(directory.Path("missing")).unusable);
  EXPECT_TRUE(CheckOptions(directory.Path()).unusable);
}

// A file with a fault in each of its many lines is told in time, and not for ever.
TEST_F(OptionCheckTest, ManyFaultsAreCut) {
  const OptionCheck check = Check("<config><tarvik>" + Repeated("<x/>\n", 100'000) + "</tarvik></config>");
  ASSERT_EQ(check.faults.size(), 201u);
  EXPECT_EQ(check.faults.back().line, 201);
  EXPECT_EQ(check.faults.back().what, "has more such faults, which are not told");
}

TEST_F(OptionCheckTest, GoodFileHasItsValuesInForce) {
  const OptionCheck check =
      Check("<config><tarvik><log><level> 3 </level></log><app><lldp>0</lldp></app></tarvik></config>");
  EXPECT_TRUE(check.faults.empty()) << FaultLines("f", check);
  EXPECT_THAT(check.json,
              HasSubstr("\"key\":\"log.level\",\"type\":\"number\",\"range\":\"0 to 6\",\"default\":\"5\","
                        "\"value\":\"3\",\"set\":true"));
  EXPECT_THAT(check.json,
              HasSubstr("\"key\":\"app.lldp\",\"type\":\"flag\",\"range\":\"true or false\",\"default\":"
                        "\"true\",\"value\":\"false\",\"set\":true"));
}

// The commented file that is installed shows every option once, with the default of the table.
TEST_F(OptionCheckTest, InstalledFileShowsTheTable) {
  std::ostringstream text;
  text << std::ifstream(ZEM_SOURCE_FOLDER "/packaging/zem-tarvik.xml").rdbuf();
  // Uncommented, it has to be good, and to set everything to its default.
  const std::string all = std::regex_replace(text.str(), std::regex("<!-- (<.*>) -->"), "$1");
  const OptionCheck check = Check(all);
  EXPECT_TRUE(check.faults.empty()) << FaultLines("zem-tarvik.xml", check);
  EXPECT_THAT(check.json, Not(HasSubstr("\"set\":false")));
  std::istringstream xml(all);
  boost::property_tree::ptree tree;
  boost::property_tree::read_xml(xml, tree, boost::property_tree::xml_parser::trim_whitespace);
  for (const OptionRow& row : kOptionRows) {
    EXPECT_EQ(tree.get("config.tarvik." + std::string(row.key), "missing"), row.standard) << row.key;
  }
}

// The same for the context engine's, which is good once a client is chosen.
TEST_F(OptionCheckTest, InstalledFileOfTheContextEngineShowsItsTable) {
  std::ostringstream text;
  text << std::ifstream(ZEM_SOURCE_FOLDER "/packaging/zem-ctxteng.xml").rdbuf();
  std::string all = std::regex_replace(text.str(), std::regex("<!-- (<.*>) -->"), "$1");
  all = std::regex_replace(all, std::regex("Client>false<"), "Client>true<");
  const OptionCheck check = Check(all);
  EXPECT_TRUE(check.faults.empty()) << FaultLines("zem-ctxteng.xml", check);
  EXPECT_THAT(check.json, Not(HasSubstr("\"set\":false")));
}

// A key that code reads beside the table would be one that the check calls unknown.  The functions that read
// options take keys of the table alone; this finds code that goes around them.
TEST(OptionTableTest, NobodyReadsTheTreeItself) {
  namespace fs = std::filesystem;
  for (const char* folder : {"agent", "app", "framework", "platform", "mpaclient", "covedbclient"}) {
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(ZEM_SOURCE_FOLDER) / folder)) {
      if (!entry.is_regular_file() || entry.path().filename().string().starts_with("options.")) continue;
      std::ostringstream text;
      text << std::ifstream(entry.path()).rdbuf();
      EXPECT_EQ(text.str().find("OptionsTree("), std::string::npos) << entry.path();
    }
  }
}

}  // namespace
}  // namespace zem::Tarvik
