// The rules of a host configuration that need no host: the error code, the answer, the host's install flags.

#include <gtest/gtest.h>

#include "app/zema/hostconfig/host_config_task.h"
#include "app/zema/hostconfig/router_reconnection.h"
#include "app/zema/hostswitch/stateless_host.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::HostConfigMsg;

TEST(ErrorSinkTest, TheCodeOnlyRisesAndOnlyARouterPortAloneIsForgiven) {
  ErrorSink errors;
  errors.Add(ErrorSink::kRouterPort, "vdr port disconnect for host switch [a] failed");
  errors.Add(ErrorSink::kGeneral, "other");
  EXPECT_EQ(errors.code(), ErrorSink::kRouterPort);
  errors.RemoveTextsWith("vdr port disconnect for host switch [", [](const std::string&) {});
  EXPECT_EQ(errors.texts(), std::vector<std::string>{"other"});
  EXPECT_FALSE(errors.ForgiveRouterPort());
  EXPECT_EQ(errors.code(), ErrorSink::kRouterPort);

  ErrorSink alone;
  alone.Add(ErrorSink::kRouterPort, "vdr port disconnect for host switch [a] failed");
  EXPECT_FALSE(alone.ForgiveRouterPort()) << "its text is still there";
  alone.RemoveTextsWith("vdr port disconnect", [](const std::string&) {});
  EXPECT_TRUE(alone.ForgiveRouterPort());
  EXPECT_EQ(alone.code(), 0u);

  ErrorSink higher;
  higher.Add(ErrorSink::kSwitchStatus, "status");
  higher.Add(ErrorSink::kRouterPort, "vdr port disconnect");
  EXPECT_EQ(higher.code(), ErrorSink::kSwitchStatus);
  higher.RemoveTextsWith("", [](const std::string&) {});
  EXPECT_FALSE(higher.ForgiveRouterPort());
}

class AnsweringTask : public HostConfigTask {
 public:
  explicit AnsweringTask(MpaMessageSender* sender, std::vector<std::pair<uint32_t, std::string>> outcome)
      : HostConfigTask(sender, "corr", "reply", Message()), outcome_(std::move(outcome)) {}

  void ApplyHostConfig(bool, bool) override {
    for (const auto& [code, text] : outcome_) {
      text.empty()                                               ? errors_.Add(code, ""),
          errors_.RemoveTextsWith("", [](const std::string&) {}) : errors_.Add(code, text);
    }
    endpoint_ids_ = {7, 3};
  }

 private:
  static HostConfigMsg Message() {
    HostConfigMsg message;
    message.set_id("c1");
    message.add_endpoint_ids(99);
    return message;
  }
  const std::vector<std::pair<uint32_t, std::string>> outcome_;
};

TEST(HostConfigTaskTest, TheAnswerCarriesCodeTextsAndEndpoints) {
  FakeSender sender;
  AnsweringTask(&sender, {}).Run();
  AnsweringTask(&sender, {{8700, "one"}, {8701, "two"}}).Run();
  AnsweringTask(&sender, {{8700, ""}}).Run();
  AnsweringTask(nullptr, {{8700, "nobody hears"}}).Run();
  const auto sent = sender.Take();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(
      sent[0],
      "HostConfig corr reply id: \"c1\" error_code: 0 error_text: \"\" endpoint_ids: 3 endpoint_ids: 7");
  EXPECT_NE(sent[1].find("error_code: 8701 error_text: \"one; two; \""), std::string::npos) << sent[1];
  EXPECT_NE(sent[2].find("error_text: \"ErrorCode=8700\""), std::string::npos) << sent[2];
}

TEST(StatelessHostTest, TheFlagsDecideWhoMakesTheSwitches) {
  struct Case {
    const char* opaque_switch;
    const char* config_required;
    bool profile;
    bool migrate;
    bool plugin;
  };
  for (const Case& c : {Case{"ok", "notset", false, true, false}, Case{"ok", "ok", false, true, true},
                        Case{"ok", "ok", true, false, true}, Case{"notset", "notset", false, false, true},
                        Case{"notset", "ok", true, false, true}}) {
    FakeLumCommands lum;
    lum.Script("IsZemInstallStatusSet()", {"notset"});
    lum.Script("IsZemInstallStatusOpaqueSwitchSet()", {c.opaque_switch});
    lum.Script("IsZemDvsConfigRequiredSet()", {c.config_required});
    ErrorSink errors;
    StatelessHost host;
    ASSERT_TRUE(CheckStatelessQubRebootFlags(lum, c.profile, &host, errors));
    EXPECT_EQ(host.migrate_nvs_knls, c.migrate);
    EXPECT_EQ(host.process_network_plugin, c.plugin);
  }
  FakeLumCommands lum;  // answers that the install flag is set
  ErrorSink errors;
  StatelessHost host;
  EXPECT_FALSE(CheckStatelessQubRebootFlags(lum, false, &host, errors));
  EXPECT_EQ(errors.code(), ErrorSink::kGeneral);
  EXPECT_EQ(lum.commands.size(), 1u) << "nothing else is asked";
}

TEST(StatelessHostTest, AnUnansweredFlagDoesNotCountAsCleared) {
  const std::vector<std::string> flags = {"IsZemInstallStatusSet()", "IsZemInstallStatusOpaqueSwitchSet()",
                                          "IsZemDvsConfigRequiredSet()"};
  for (const std::string& untold : flags) {
    FakeLumCommands lum;
    lum.Script(flags[0], {"notset"});
    lum.Script(untold, {std::string(LumCommands::kReadFailed)});
    ErrorSink errors;
    StatelessHost host;
    EXPECT_FALSE(CheckStatelessQubRebootFlags(lum, false, &host, errors)) << untold;
    EXPECT_EQ(errors.texts(), std::vector<std::string>{untold + " failed: [socket read failed]"});
    EXPECT_FALSE(host.process_network_plugin);
  }
}

TEST(StatelessHostTest, OnlyTwoDigitsWithOneCharacterBetweenAreAVersion) {
  for (const char* reply : {"ok|1,0", "ok|0,1"}) {
    FakeLumCommands lum;
    lum.Script("CheckQUBiVersion70AndUnusedCkln()", {reply});
    ErrorSink errors;
    EXPECT_TRUE(CheckQUBiVersion70AndUnusedCkln(lum, errors)) << reply;
  }
  for (const char* reply : {"", "ok", "ok|", "ok|1", "ok|1,", "ok|1,0,1", "no|1,0", "ok1,0"}) {
    FakeLumCommands lum;
    lum.Script("CheckQUBiVersion70AndUnusedCkln()", {reply});
    ErrorSink errors;
    EXPECT_FALSE(CheckQUBiVersion70AndUnusedCkln(lum, errors)) << reply;
    EXPECT_EQ(errors.code(), ErrorSink::kGeneral);
    // When the host gives no text, only the code reports the failure.
    const auto texts = *reply != '\0' ? std::vector<std::string>{reply} : std::vector<std::string>{};
    EXPECT_EQ(errors.texts(), texts);
  }
}

TEST(RouterMacsTest, TextsAreConvertedThereAndBack) {
  HostConfigMsg config;
  config.add_host_switches()->set_id("a");
  auto* with_router = config.add_host_switches();
  with_router->set_id("b");
  with_router->set_vdr_mac("02:50:56:56:44:52");
  const auto texts = RouterMacTexts(RouterMacsOfHealth(config));
  EXPECT_EQ(texts, LeavingSwitches::RouterMacsOf(config));
}

}  // namespace
}  // namespace zem::zema
