#include "ctl/report_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/temp_dir.h"

namespace zem::ctl {
namespace {

using testing::HasSubstr;

// Names that a manager or a guest could have, each of which would be markup or script if it were ever taken
// for it.
constexpr const char* kData =
    R"({"made":"now","status":{"state":"degraded","node_id":"</script><script>document.title='taken'</script>",
 "faults":[{"part":"manager","what":"<img src=x onerror=document.title='taken'>","since":"noon","heals":"a restart"}]},
 "switches":{"switches":[{"id":"s1","name":"ks-<b>1</b>","uplinks":["vmnic1",{"name":"vmnic2","up":false}]}]},
 "ports":{"ports":[{"id":"p1","switch":"s1","vif":"vif-&amp;1"}]},"vifs":{"refused":"<i>none</i>"},
 "operations":[{"number":1,"begun_us":1785000000000000,"duration_us":5,"state":"failed","keys":["<u>c-1</u>"]}],
 "timelines":[{"number":1,"kind":"VIF operation","state":"failed","error":"refused <s>","duration_us":5,"keys":["c-1"],
  "steps":[{"name":"asks","result":"'\"><svg onload=document.title='taken'>","start_us":1,"duration_us":-1,"failed":true},{"name":7},null]}]})";

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST(ReportPageTest, NothingInTheDataCanLeaveItsElement) {
  const std::string page = ReportPage(kData);
  EXPECT_EQ(Count(page, "</script"), 2u);
  EXPECT_EQ(Count(page, "<img"), 0u);
  EXPECT_THAT(page, HasSubstr("default-src 'none'"));
}

// The page as a browser sees it: everything drawn, hostile names as text.  CI installs one
// ("tools/install-packages browser"); where there is none, only the test above holds.
TEST(ReportPageTest, ABrowserDrawsItWithoutANetwork) {
  if (std::system("command -v chromium >/dev/null 2>&1") != 0) GTEST_SKIP() << "chromium is not installed";
  const test::TempDir dir;
  dir.Write("page.html", ReportPage(kData));
  const std::string command =
      "timeout 60 chromium --headless --no-sandbox --disable-gpu --user-data-dir=" + dir.Path("user") +
      " --dump-dom file://" + dir.Path("page.html") + " >" + dir.Path("dom") + " 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const std::string dom = dir.Read("dom");
  EXPECT_THAT(dom, HasSubstr("data-drawn=\"yes\""));
  EXPECT_THAT(dom, HasSubstr("<title>zem-tarvik report</title>"));
  EXPECT_THAT(dom, HasSubstr("ks-&lt;b&gt;1&lt;/b&gt;"));
  EXPECT_THAT(dom, HasSubstr("manager: &lt;img src=x onerror=document.title='taken'&gt;"));
  EXPECT_THAT(dom, HasSubstr("VIF vif-&amp;amp;1"));
  EXPECT_THAT(dom, HasSubstr("1 ports, 1 with a VIF"));
  EXPECT_THAT(dom, HasSubstr("under way"));
}

}  // namespace
}  // namespace zem::ctl
