#include "sim/profiles/profile_commands.h"

#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "platform/core/uuid.h"
#include "proto/context/agent_config.pb.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/profile_objects.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/store/store.h"

namespace zem::sim {
namespace {

namespace covedb = orlane::zem::covedb;
namespace context = orlane::zem::context;

constexpr const char* kNode = "transport-node";
constexpr uint32_t kTransportNode = 2;
constexpr uint32_t kFlowProfile = 8;
constexpr uint32_t kAgentProfile = 15;
constexpr uint32_t kSiteProfile = 17;
constexpr uint32_t kGuestTopic = 2;
constexpr const char* kAuthority = "/etc/orlane/zem/broker-authority.pem";
constexpr const char* kTrustStore = "/etc/orlane/zem/";

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  if (!(text << std::ifstream(path).rdbuf())) throw std::runtime_error("cannot read " + path);
  return text.str();
}

// The profiles that are bound to the node.
class Book {
 public:
  explicit Book(Store& store) : store_(store) {}

  // In one transaction, as the manager does: an entity never names a profile that is not there.
  void Put(const std::string& id, std::optional<uint32_t> type, const std::string& payload) {
    covedb::ProfileMsg profile;
    profile.set_id(id);
    if (type) profile.set_type(*type);
    profile.set_payload(payload);
    std::lock_guard lock(mutex_);
    profiles_[id] = profile.SerializeAsString();
    Write({id}, {});
  }

  bool Drop(const std::string& id) {
    std::lock_guard lock(mutex_);
    if (profiles_.erase(id) == 0) return false;
    Write({}, {id});
    return true;
  }

 private:
  void Write(const std::vector<std::string>& put, const std::vector<std::string>& dropped) {
    covedb::ModifyRequestMsg request;
    for (const std::string& id : put) {
      covedb::PutMsg* const change = request.add_modify_msg()->mutable_put_msg();
      change->set_object_type(covedb::PROFILE);
      change->set_object(profiles_[id]);
    }
    covedb::ProfileBindingMsg binding;
    binding.set_entity_id(kNode);
    binding.set_entity_type(kTransportNode);
    for (const auto& [id, profile] : profiles_) binding.add_profile_id(id);
    covedb::PutMsg* const change = request.add_modify_msg()->mutable_put_msg();
    change->set_object_type(covedb::PROFILE_BINDING);
    change->set_object(binding.SerializeAsString());
    for (const std::string& id : dropped) {
      covedb::ProfileMsg key;
      key.set_id(id);
      covedb::DeleteMsg* const removal = request.add_modify_msg()->mutable_delete_msg();
      removal->set_object_type(covedb::PROFILE);
      removal->set_object(key.SerializeAsString());
    }
    const auto status = store_.Modify({request});
    if (!status.ok()) throw std::runtime_error("the store refuses: " + status.text());
  }

  Store& store_;
  std::mutex mutex_;  // guards profiles_
  std::map<std::string, std::string> profiles_;
};

void PutAgent(Book& book, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--site", "--certificate", "--trust-store"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 1) return reply.Fail("brokers, divided by commas");
  context::CommonAgentHostConfigMsg agent;
  std::istringstream brokers(options.positional()[0]);
  for (std::string broker; std::getline(brokers, broker, ',');) agent.add_end_point(broker);
  agent.set_certificate(ReadFile(options.Value("--certificate").value_or(kAuthority)));
  agent.set_trust_store(options.Value("--trust-store").value_or(kTrustStore));
  if (const auto site = options.Value("--site")) {
    const auto uuid = ParseUuid(*site);
    if (!uuid) return reply.Fail("the site is no uuid");
    SetUuid(*uuid, agent.mutable_site_id());
  }
  book.Put("agent", kAgentProfile, agent.SerializeAsString());
  reply.Ok();
}

void PutFlow(Book& book, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--interval", "--topic"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const auto& words = options.positional();
  if (words.size() != 1 || (words[0] != "on" && words[0] != "off")) return reply.Fail("on or off");
  context::ContextHostConfigMsg config;
  config.set_enabled_collection(words[0] == "on");
  if (const auto interval = options.Value("--interval")) {
    const auto minutes = NumberOf<uint32_t>(*interval);
    if (!minutes) return reply.Fail("the interval is no number");
    config.set_collection_interval(*minutes);
  }
  config.add_topic()->set_type(kGuestTopic);
  config.mutable_topic(0)->set_name(options.Value("--topic").value_or("guests"));
  book.Put("flow", kFlowProfile, config.SerializeAsString());
  reply.Ok();
}

void PutRaw(Book& book, const Arguments& arguments, const Reply& reply) {
  const auto type = NumberOf<uint32_t>(arguments[1]);
  const auto payload = FromHex(arguments[2]);
  if ((!type && arguments[1] != "none") || !payload) return reply.Fail("a number or none, and digits");
  book.Put(arguments[0], type, *payload);
  reply.Ok();
}

}  // namespace

void RegisterProfileCommands(CommandTable& table, Store& store) {
  const auto book = std::make_shared<Book>(store);
  table.Register({"agent", "[--site UUID] [--certificate FILE] [--trust-store DIR/] HOST:PORT,...",
                  "Tells the node the brokers; the certificate is that of the brokers' authority.", 1, 7,
                  [book](const Arguments& a, const Reply& r) { PutAgent(*book, a, r); }});
  table.Register({"flow", "[--interval MINUTES] [--topic NAME] on|off",
                  "Switches the reports of what guests do, to the topic \"guests\".", 1, 5,
                  [book](const Arguments& a, const Reply& r) { PutFlow(*book, a, r); }});
  table.Register(
      {"site", "TEXT", "Tells the node its site.", 1, 1, [book](const Arguments& a, const Reply& r) {
         context::MetricsMuxUaProfileProtoMsg site;
         site.set_site_id(a[0]);
         book->Put("site", kSiteProfile, site.SerializeAsString());
         r.Ok();
       }});
  table.Register({"raw", "ID TYPE|none HEX", "A profile of any type with any content.", 3, 3,
                  [book](const Arguments& a, const Reply& r) { PutRaw(*book, a, r); }});
  table.Register({"drop", "agent|flow|site|ID", "The node has the profile no longer.", 1, 1,
                  [book](const Arguments& a, const Reply& r) {
                    if (!book->Drop(a[0])) return r.Fail("there is no profile " + a[0]);
                    r.Ok();
                  }});
}

}  // namespace zem::sim
