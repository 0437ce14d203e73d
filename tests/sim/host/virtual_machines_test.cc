#include "sim/host/virtual_machines.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/vif_ports.h"
#include "sim/truth/vm_check.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kExternalId = "com.orlane.port.extraConfig.vnic.external.id";
constexpr const char* kOpaqueNetwork = "com.orlane.port.extraConfig.opaqueNetwork.id";
constexpr const char* kPending = "com.orlane.port.extraConfig.portOp.pending";

struct Asked {
  uint32_t opcode;
  std::string op_id;
  std::string vif;
  std::string ls;
  std::string path;
};
struct Told {
  uint32_t status = 0;
  std::string text;
};

// The agent's side of the socket: every question goes to `serve`, whose answer goes back.
class Agent {
 public:
  Agent(const std::string& path, std::function<Told(const Asked&)> serve) : serve_(std::move(serve)) {
    socket_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    thread_ = NativeThread([this] { Run(); });
  }
  ~Agent() { ::shutdown(socket_.get(), SHUT_RDWR); }

 private:
  void Run() {
    std::string frame(284 + 1010, '\0');
    while (::recv(socket_.get(), frame.data(), frame.size(), MSG_WAITALL) ==
           static_cast<ssize_t>(frame.size())) {
      Asked asked;
      std::memcpy(&asked.opcode, frame.data() + 272, sizeof(asked.opcode));
      asked.op_id = frame.c_str() + 16;
      asked.vif = frame.c_str() + 284;
      asked.ls = frame.c_str() + 284 + 458;
      asked.path = frame.c_str() + 284 + 714;
      const Told told = serve_(asked);
      std::string answer = frame.substr(0, 284);
      const auto size = static_cast<uint32_t>(told.text.empty() ? 0 : told.text.size() + 1);
      std::memcpy(answer.data() + 276, &told.status, sizeof(told.status));
      std::memcpy(answer.data() + 280, &size, sizeof(size));
      answer += std::string(told.text.c_str(), size);
      if (::send(socket_.get(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
    }
  }

  UniqueFd socket_;
  std::function<Told(const Asked&)> serve_;
  NativeThread thread_;
};

class VirtualMachinesTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/vms.XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    root = name;
    ::setenv("ZEM_SIM_ROOT", (root + "/sim").c_str(), 1);
    state = std::make_unique<SwitchState>();
    ASSERT_TRUE(state->MakeSwitch({"dvs", "ks-1", "KLN", {"zone"}, {}}));
    daemon = std::make_unique<HostManagement>(root + "/socket");
    machines = std::make_unique<VirtualMachines>(*daemon, root + "/sim/host/vms.log");
    options.patience = std::chrono::seconds(20);
  }
  void TearDown() override {
    machines = nullptr;
    agent = nullptr;
    daemon = nullptr;
    fs::remove_all(root);
  }

  void Serve(std::function<Told(const Asked&)> serve) {
    agent = std::make_unique<Agent>(root + "/socket", std::move(serve));
    while (!daemon->state().connected) SleepFor(std::chrono::milliseconds(1));
  }

  void Set(const PortPlace& place, const char* name, const std::string& value) {
    EXPECT_TRUE(state->SetPortProperty(place.dvs, place.port, name, value));
  }
  void Create(const std::string& name) {
    Vnic vnic;
    vnic.vif = "v1";
    vnic.ls = "web";
    machines->Create({name}, root + "/store", {{"eth0", vnic}});
  }
  Vnic VnicOf(const std::string& name) { return machines->Find(name).front().vnics.at("eth0"); }
  static std::string Problem(const VirtualMachines::Steps& steps) {
    for (const VmStep& step : steps) {
      if (!step.good()) return step.problem.empty() ? step.text : step.problem;
    }
    return "";
  }
  std::string root;
  std::unique_ptr<SwitchState> state;
  std::unique_ptr<HostManagement> daemon;
  std::unique_ptr<VirtualMachines> machines;
  std::unique_ptr<Agent> agent;
  VirtualMachines::Options options;
};

TEST_F(VirtualMachinesTest, AGreenAnswerWithoutThePortBehindItFails) {
  Told told;
  Serve([&](const Asked&) { return told; });
  Create("a");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "plugFailed: no port holds VIF [v1] in [web]");
  EXPECT_FALSE(machines->Find("a").front().on);

  // On another switch than was asked for.
  ASSERT_EQ(AddPort({"dvs", "p"}), "");
  Set({"dvs", "p"}, kExternalId, "v1");
  Set({"dvs", "p"}, kOpaqueNetwork, "app");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "plugFailed: no port holds VIF [v1] in [web]");

  // On two ports.
  ASSERT_EQ(AddPort({"dvs", "q"}), "");
  Set({"dvs", "q"}, kExternalId, "v1");
  Set({"dvs", "q"}, kOpaqueNetwork, "web");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)).substr(0, 8), "VIF [v1]");
  Set({"dvs", "p"}, kExternalId, "");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "");

  // Still there behind a detach.
  EXPECT_EQ(Problem(machines->PowerOff({"a"}, options)), "port q still holds VIF [v1] in [web]");

  told = {1, "no such switch"};
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "no such switch");
}

TEST_F(VirtualMachinesTest, AnEndOfTheConnectionEndsTheChange) {
  Serve([this](const Asked&) {
    daemon->Drop();
    return Told();
  });
  Create("a");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "no answer, or the connection ended before it");
  EXPECT_EQ(Problem(machines->PowerOn({"a"}, options)), "nobody is connected, or takes it");
}

// What the management script and a node that starts anew read is what was written last.
TEST_F(VirtualMachinesTest, TheJournalHoldsTheLastOfEachVmWhateverAWriterLeft) {
  const std::string file = root + "/sim/host/vms.log";
  VmJournal first(file);
  VmJournal second(file);
  for (int i = 0; i < 3000; ++i) {
    Json machine = JsonObject();
    AddMember(machine.get(), "name", std::to_string(i));
    (i % 2 == 0 ? first : second).Refresh();
    (i % 2 == 0 ? first : second).Put("vm-" + std::to_string(i % 7), std::move(machine));
  }
  EXPECT_LT(fs::file_size(file), 100000u);
  {
    std::FILE* const half = std::fopen(file.c_str(), "a");
    std::fputs("{\"op\":\"set\",\"uuid\":\"half", half);
    std::fclose(half);
  }
  second.Refresh();
  second.Remove("vm-0");
  first.Refresh();
  EXPECT_EQ(first.machines().size(), 6u);
  EXPECT_STREQ(cJSON_GetObjectItem(first.Find("vm-3"), "name")->valuestring, "2999");
}

}  // namespace
}  // namespace zem::sim
