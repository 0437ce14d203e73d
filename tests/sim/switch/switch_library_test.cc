#include <dlfcn.h>
#include <gmock/gmock.h>
#include <stdlib.h>

#include <cstdlib>
#include <string>

#include "platform/core/thread.h"
#include "platform/switchlib/switchlib.h"
#include "sim/control/command_table.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/switch_commands.h"
#include "sim/switch/tree/value_list.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kDvs = "50 2e";

// A caller of the library that may break its rules.
class SwitchLibraryTest : public testing::Test {
 protected:
  SwitchLibraryTest() {
    setenv("ZEM_SIM_ROOT", dir.Path("sim").c_str(), 1);
    state = std::make_unique<SwitchState>();
    EXPECT_TRUE(state->MakeSwitch({kDvs, "ks-1", "KLN", {"z1"}, {"u1"}}));
    handle = dlopen((LibraryFolder::Built() + "/libklnPublic.so").c_str(), RTLD_LAZY);
    EXPECT_NE(handle, nullptr) << dlerror();
    RegisterSwitchCommands(table, *state, libraries);
  }
  ~SwitchLibraryTest() override { Close(); }

  void Close() {
    if (handle != nullptr) dlclose(handle);
    handle = nullptr;
  }

  uint32_t Add(const char* dvs, const std::string& port, const std::string& bytes) {
    return As<uint32_t(const char*, const char*, const void*, uint32_t)>("DVSKNL_PortAdd")(
        dvs, port.c_str(), bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  template <class Signature>
  Signature* As(const char* name) {
    return reinterpret_cast<Signature*>(dlsym(handle, name));
  }
  std::string Run(const std::string& line) {
    std::string answer;
    table.Execute(line, Reply([&answer](Json json) { answer = JsonText(json.get()); }));
    return answer;
  }

  test::TempDir dir;
  std::unique_ptr<SwitchState> state;
  LibraryFolder libraries{dir.Path("lib")};
  void* handle = nullptr;
  CommandTable table;
};

TEST_F(SwitchLibraryTest, WhatASwitchRefuses) {
  ValueList list;
  list.Update("com.orlane.a", "1", DVS_PROPERTY_FLAGS);
  const std::string good = list.Serialize();
  EXPECT_EQ(Add(kDvs, "lp-1", good), 0U);
  struct {
    const char* dvs;
    std::string port;
    std::string bytes;
    uint32_t code;
  } const cases[] = {
      {kDvs, "lp-1", good, DVS_EXISTS},
      {"ks-1", "lp-2", good, DVS_NOT_FOUND},
      {"", "lp-2", good, DVS_NOT_FOUND},
      {"../switches/50 2e", "lp-2", good, DVS_NOT_FOUND},
      {kDvs, std::string(48, 'k'), good, DVS_BAD_ARGUMENT},
      {kDvs, "a/b", good, DVS_BAD_ARGUMENT},
      {kDvs, "lp-2", good.substr(0, good.size() - 1), DVS_BAD_ARGUMENT},
      {kDvs, "lp-2", std::string(good.size(), '\0'), DVS_BAD_ARGUMENT},
  };
  for (const auto& row : cases) EXPECT_EQ(Add(row.dvs, row.port, row.bytes), row.code) << row.dvs << row.port;
  EXPECT_EQ(Add(kDvs, std::string(47, 'k'), good + std::string(100, '\0')), 0U);
  EXPECT_THAT(state->Ports(kDvs), SizeIs(2));
  EXPECT_THAT(state->journal().Violations(), IsEmpty());
}

TEST_F(SwitchLibraryTest, VolatilePropertiesDoNotOutliveThePort) {
  ValueList list;
  list.Update("com.orlane.stays", "1", DVS_PROPERTY_FLAGS);
  list.Update("com.orlane.port.volatile.goes", "2", DVS_PROPERTY_FLAGS);
  ASSERT_EQ(Add(kDvs, "lp-1", list.Serialize()), 0U);
  const auto get =
      As<uint32_t(const char*, const char*, uint32_t, void**, uint32_t*)>("DVSKNL_PersistentPortStateGet");
  void* buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(get(kDvs, "lp-1", DVS_FORMAT, &buffer, &length), 0U);
  const auto read = ValueList::Deserialize({static_cast<const char*>(buffer), length});
  std::free(buffer);
  ASSERT_TRUE(read);
  ASSERT_THAT(read->items(), SizeIs(1));
  EXPECT_EQ(read->items()[0].name, "com.orlane.stays");
  EXPECT_EQ(get(kDvs, "lp-1", 99, &buffer, &length), DVS_BAD_ARGUMENT);
  EXPECT_THAT(state->journal().Violations(), ElementsAre(HasSubstr("a format other than 100")));
}

// Each rule that is broken has to show, or tests that look for none prove nothing.
TEST_F(SwitchLibraryTest, BrokenRulesAreToldAndEndNobody) {
  const auto told = [&](const char* what) {
    EXPECT_THAT(state->journal().Violations(), Contains(HasSubstr(what)));
    state->journal().Clear();
    EXPECT_THAT(state->journal().Violations(), IsEmpty());
  };
  DVSData* data = nullptr;
  const auto alloc = As<uint32_t(DVSData**)>("DVSData_Alloc");
  const auto free_list = As<uint32_t(DVSData*)>("DVSData_Free");
  const auto update = As<uint32_t(DVSData*, const char*, const void*, uint32_t, uint32_t)>("DVSData_Update");
  ASSERT_EQ(alloc(&data), 0U);
  EXPECT_EQ(update(data, "a", "1", 1, 8), 0U);
  told("flags");
  EXPECT_EQ(free_list(data), 0U);
  EXPECT_EQ(update(data, "a", "1", 1, 16), DVS_BAD_ARGUMENT);
  told("freed");
  EXPECT_EQ(free_list(data), DVS_BAD_ARGUMENT);
  told("freed");

  std::string error;
  ASSERT_TRUE(state->AddFault("DVSKNL_SwitchPortList delay_ms=50", &error));
  const auto list = As<uint32_t(const char*, void**, uint32_t*)>("DVSKNL_SwitchPortList");
  const auto call = [list] {
    void* buffer = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(list(kDvs, &buffer, &length), 0U);
    std::free(buffer);
  };
  {
    zem::NativeThread first(call);
    zem::NativeThread second(call);
  }
  told("two threads");

  const auto reset = As<uint32_t()>("DVSState_ConfigReset");
  EXPECT_EQ(reset(), 0U);
  EXPECT_EQ(reset(), 0U);
  told("a reset while");
}

// What was not given back can be asked for while the process lives.
TEST_F(SwitchLibraryTest, WhatWasNotGivenBackIsToldAsItStands) {
  const auto alloc = As<uint32_t(DVSData**)>("DVSData_Alloc");
  DVSData* first = nullptr;
  DVSData* second = nullptr;
  ASSERT_EQ(alloc(&first), 0U);
  ASSERT_EQ(alloc(&second), 0U);
  EXPECT_THAT(state->journal().Live(),
              ElementsAre("DVSData_Alloc: 2 of process " + std::to_string(::getpid())));
  const auto free_list = As<uint32_t(DVSData*)>("DVSData_Free");
  EXPECT_EQ(free_list(first), 0U);
  EXPECT_EQ(free_list(second), 0U);
  EXPECT_THAT(state->journal().Live(), IsEmpty());
}

TEST_F(SwitchLibraryTest, StateOfTheProcessGivesIdsByName) {
  void* buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(As<uint32_t(void**, uint32_t*, const char*, int)>("DVSKNL_StateGet")(&buffer, &length, "", 0),
            0U);
  ASSERT_EQ(As<uint32_t()>("DVSState_ConfigReset")(), 0U);
  ASSERT_EQ(As<uint32_t(const void*, uint32_t)>("DVSState_ConfigDeserialize")(buffer, length), 0U);
  std::free(buffer);
  const auto find = As<DVSSwitch*(const char*)>("DVSState_SwitchFindByAlias");
  EXPECT_EQ(find("ks-9"), nullptr);
  ASSERT_NE(find("ks-1"), nullptr);
  EXPECT_STREQ(As<const char*(const DVSSwitch*)>("DVS_SwitchId")(find("ks-1")), kDvs);
  EXPECT_THAT(state->journal().Violations(), IsEmpty());
}

TEST_F(SwitchLibraryTest, FaultsComeInOrderAndAreUsedUp) {
  const auto find = [&](const char* port) {
    return As<uint32_t(const char*, const char*)>("DVSKNL_PortFind")(kDvs, port);
  };
  EXPECT_EQ(Run("switch/fault DVSKNL_PortFind port=lp-1 skip=1 count=2 ret=0xbad0001"), R"({"ok":true})");
  EXPECT_EQ(find("lp-1"), DVS_NOT_FOUND);
  EXPECT_EQ(find("lp-2"), DVS_NOT_FOUND);
  EXPECT_EQ(find("lp-1"), DVS_FAILURE);
  EXPECT_EQ(find("lp-1"), DVS_FAILURE);
  EXPECT_EQ(find("lp-1"), DVS_NOT_FOUND);
  EXPECT_EQ(Run("switch/faults"), R"({"ok":true,"result":[]})");
  EXPECT_THAT(Run("switch/fault DVSKNL_PortFind count=x"), HasSubstr("does not read"));
}

TEST_F(SwitchLibraryTest, CommandsShowAndChangeTheHost) {
  ValueList list;
  list.Update("com.orlane.a", std::string("text\0", 5), DVS_PROPERTY_FLAGS);
  list.Update("com.orlane.b", std::string("\1\2", 2), DVS_PROPERTY_FLAGS);
  ASSERT_EQ(Add(kDvs, "lp-1", list.Serialize()), 0U);
  EXPECT_THAT(Run("switch/ports ks-1 lp-1"),
              HasSubstr(R"({"com.orlane.a":"text","com.orlane.b":"hex:0102"})"));
  EXPECT_THAT(Run("switch/calls lp-1"), HasSubstr(R"("function":"DVSKNL_PortAdd")"));
  EXPECT_EQ(Run("switch/make --kind NVS --zones z2,z3 id2 ks-2"), R"({"ok":true})");
  EXPECT_THAT(Run("switch/list"), HasSubstr(R"("name":"ks-2","kind":"NVS","zones":["z2","z3"])"));
  EXPECT_EQ(Run("switch/lose-ports ks-9"), R"({"ok":false,"error":"no switch \"ks-9\""})");
  EXPECT_EQ(Run("switch/lose-ports ks-1"), R"({"ok":true})");
  EXPECT_THAT(state->Ports(kDvs), IsEmpty());
  EXPECT_EQ(Run("switch/remove ks-2"), R"({"ok":true})");
  EXPECT_THAT(state->SwitchIds(), ElementsAre(kDvs));
  EXPECT_THAT(Run("switch/library lack libklnPublic.so"), HasSubstr("lack NAME FUNCTION"));
  EXPECT_THAT(Run("switch/make --kind X id3 ks-3"), HasSubstr("kind KLN or NVS"));
}

}  // namespace
}  // namespace zem::sim
