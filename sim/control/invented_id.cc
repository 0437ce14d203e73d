#include "sim/control/invented_id.h"

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "platform/core/uuid.h"

namespace zem::sim {
namespace {

struct Inventions {
  std::mutex mutex;  // guards all below
  std::string seed;
  std::map<std::string, uint64_t> made;  // by purpose
};

Inventions& All() {
  static Inventions all;
  return all;
}

}  // namespace

std::string InventedUuidText(const std::string& purpose) {
  Inventions& all = All();
  const std::lock_guard lock(all.mutex);
  if (all.seed.empty()) return RandomUuidText();
  const uint64_t number = ++all.made[purpose];
  const boost::uuids::name_generator_sha1 generator(boost::uuids::ns::oid());
  return boost::uuids::to_string(generator(all.seed + "\n" + purpose + "\n" + std::to_string(number)));
}

void SeedInventions(std::string seed) {
  Inventions& all = All();
  const std::lock_guard lock(all.mutex);
  all.seed = std::move(seed);
  all.made.clear();
}

}  // namespace zem::sim
