#include "app/zema/resync/resync_reply.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

TEST(ResyncReplyTest, TellsCommandsFromTheRest) {
  using Kind = ResyncReply::Kind;
  struct Case {
    const char* text;
    Kind kind;
    size_t commands;
  };
  for (const Case& c : {Case{"", Kind::kUseless, 0}, Case{"\r\n", Kind::kUseless, 0},
                        Case{"error", Kind::kUseless, 0}, Case{"errors, many", Kind::kUseless, 0},
                        Case{"ok", Kind::kNothingToDo, 0}, Case{"ok\n", Kind::kNothingToDo, 0},
                        Case{"okay", Kind::kCommands, 1}, Case{"attach|v|l|p", Kind::kCommands, 1},
                        Case{"a|b,c|d\n", Kind::kCommands, 2}, Case{"a|b,", Kind::kCommands, 2}}) {
    const ResyncReply reply(c.text);
    EXPECT_EQ(reply.kind(), c.kind) << c.text;
    EXPECT_EQ(reply.commands().size(), c.commands) << c.text;
  }
  const std::string endless(ResyncReply::kMostCommands, ',');
  EXPECT_EQ(ResyncReply(endless).kind(), Kind::kUseless);
}

// A field in the wrong place would attach a VIF to another VM's port.
TEST(ResyncReplyTest, CommandsByTheirTokens) {
  struct Case {
    const char* text;
    const char* fields;  // operation, VIF, logical switch, path, port; or the line
  };
  const test::LogCapture log;
  for (const Case& c :
       {Case{"attach|v|l|/vm/a", "attach v l /vm/a "}, Case{"attach|v|l|/vm/a|p", "attach v l /vm/a p"},
        Case{"detach|v|p|l|/vm/a", "detach v l /vm/a p"}, Case{"attach||l|/vm/a|", "attach  l /vm/a "},
        Case{"", "[ResyncThread] error reply: []"}, Case{"attach", "[ResyncThread] error reply: [attach]"},
        Case{"attach|v|l", "[ResyncThread] invaild attach cmd [attach|v|l], 4 or 5 tokens expected"},
        Case{"attach|v|l|p|q|r", "[ResyncThread] invaild attach cmd [attach|v|l|p|q|r], 4 or 5 tokens"},
        Case{"detach|v|p|l", "[ResyncThread] invaild detach cmd [detach|v|p|l], 5 tokens expected"},
        Case{"detach|v|p|l|g|x", "[ResyncThread] invaild detach cmd [detach|v|p|l|g|x], 5 tokens"}}) {
    const auto command = ResyncReply::Parse(c.text);
    if (!command) {
      EXPECT_TRUE(log.Contains(c.fields)) << c.text;
      continue;
    }
    const bool attach = command->operation == ResyncCommand::Operation::kAttach;
    EXPECT_EQ(std::string(attach ? "attach" : "detach") + " " + command->vif_id + " " + command->ls_id + " " +
                  command->gcf_path + " " + command->port_id,
              c.fields);
  }
  EXPECT_FALSE(ResyncReply::Parse("update|v|l|p"));
}

}  // namespace
}  // namespace zem::zema
