#include "app/zema/ports/vif_index.h"

#include <algorithm>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index_container.hpp>
#include <set>
#include <utility>

namespace zem::zema {
namespace {

namespace mi = boost::multi_index;

// When the set is full it starts again from empty.
constexpr size_t kMostNowhere = 20'000;

struct Entry {
  /// One text for all ports of a switch.
  const std::string* dvs;
  std::string port;
  std::string vif;
};

struct ByVif {};
struct ByPort {};

using Entries = mi::multi_index_container<
    Entry,
    mi::indexed_by<mi::hashed_non_unique<mi::tag<ByVif>, mi::member<Entry, std::string, &Entry::vif>>,
                   mi::hashed_non_unique<mi::tag<ByPort>, mi::member<Entry, std::string, &Entry::port>>>>;

}  // namespace

struct VifIndex::Reading::Table {
  void Add(const std::string& dvs, const std::string& port, const std::string& vif) {
    auto& by_vif = entries.get<ByVif>();
    const auto [first, last] = by_vif.equal_range(vif);
    for (auto entry = first; entry != last; ++entry) {
      if (entry->port == port && *entry->dvs == dvs) return;
    }
    entries.insert({&*names.insert(dvs).first, port, vif});
  }

  bool Has(const std::string& vif) const { return entries.get<ByVif>().count(vif) != 0; }

  // Removes the port's entries of all VIFs but `kept`, which may be null.
  void Remove(const std::string& dvs, const std::string& port, const std::string* kept) {
    auto& by_port = entries.get<ByPort>();
    auto [entry, last] = by_port.equal_range(port);
    while (entry != last) {
      const bool goes = *entry->dvs == dvs && (kept == nullptr || entry->vif != *kept);
      entry = goes ? by_port.erase(entry) : std::next(entry);
    }
  }

  std::set<std::string> names;
  Entries entries;
};

VifIndex::VifIndex() = default;
VifIndex::~VifIndex() = default;

std::optional<std::vector<PortLocation>> VifIndex::Lookup(const std::string& vif) const {
  std::lock_guard lock(lock_);
  if (table_ == nullptr || doubts_.contains(vif)) return std::nullopt;
  std::vector<PortLocation> candidates;
  const auto [first, last] = table_->entries.get<ByVif>().equal_range(vif);
  for (auto entry = first; entry != last; ++entry) {
    candidates.push_back({*entry->dvs, entry->port});
  }
  return candidates;
}

void VifIndex::AddLocked(const Writing& writing) {
  nowhere_.erase(writing.vif_);
  coming_.erase(writing.vif_);
  if (readings_ != 0) notes_.push_back({writing.at_, writing.vif_});
  if (table_ != nullptr) table_->Add(writing.at_.dvs, writing.at_.port, writing.vif_);
}

VifIndex::Writing::Writing(VifIndex& index, const std::string& dvs, const std::string& port,
                           const std::string& vif)
    : index_(index), at_{dvs, port}, vif_(vif) {
  std::lock_guard lock(index_.lock_);
  index_.writings_.push_back(this);
  index_.AddLocked(*this);
}

VifIndex::Writing::~Writing() {
  std::lock_guard lock(index_.lock_);
  std::erase(index_.writings_, this);
  // Added again, for the readings that began during the write.
  index_.AddLocked(*this);
  if (done_ && index_.table_ != nullptr) index_.table_->Remove(at_.dvs, at_.port, &vif_);
}

void VifIndex::Forget(const std::string& dvs, const std::string& port) {
  std::lock_guard lock(lock_);
  if (table_ != nullptr) table_->Remove(dvs, port, nullptr);
}

void VifIndex::Doubt(const std::string& vif) {
  std::lock_guard lock(lock_);
  nowhere_.erase(vif);
  if (coming_.size() >= kMostNowhere) coming_.clear();
  coming_.insert(vif);
  if (table_ == nullptr && readings_ == 0) return;
  doubts_[vif] = ++sequence_;
}

void VifIndex::Invalidate() {
  std::lock_guard lock(lock_);
  ++generation_;
  table_.reset();
  doubts_.clear();
  nowhere_.clear();
}

void VifIndex::SetNowhere(const std::string& vif) {
  std::lock_guard lock(lock_);
  if (table_ == nullptr || doubts_.contains(vif) || coming_.contains(vif) || table_->Has(vif)) return;
  if (nowhere_.size() >= kMostNowhere) nowhere_.clear();
  nowhere_.insert(vif);
}

bool VifIndex::IsNowhere(const std::string& vif) const {
  std::lock_guard lock(lock_);
  return nowhere_.contains(vif);
}

std::optional<std::vector<VifIndex::Holding>> VifIndex::Holdings(size_t most) const {
  const std::lock_guard lock(lock_);
  if (table_ == nullptr) return std::nullopt;
  std::vector<Holding> holdings;
  holdings.reserve(std::min(most, table_->entries.size()));
  for (const Entry& entry : table_->entries) {
    if (holdings.size() >= most) break;
    holdings.push_back({entry.vif, {*entry.dvs, entry.port}});
  }
  return holdings;
}

size_t VifIndex::size() const {
  std::lock_guard lock(lock_);
  return table_ == nullptr ? 0 : table_->entries.size();
}

VifIndex::Reading::Reading(VifIndex& index) : index_(index), table_(std::make_unique<Table>()) {
  std::lock_guard lock(index_.lock_);
  ++index_.readings_;
  generation_ = index_.generation_;
  first_note_ = index_.notes_.size();
  begun_ = ++index_.sequence_;
}

VifIndex::Reading::~Reading() {
  std::lock_guard lock(index_.lock_);
  if (--index_.readings_ == 0) index_.notes_.clear();
}

void VifIndex::Reading::Found(const std::string& dvs, const std::string& port, const std::string& vif) {
  table_->Add(dvs, port, vif);
}

void VifIndex::Reading::Install() {
  std::unique_ptr<Table> before;  // goes without the lock
  std::lock_guard lock(index_.lock_);
  if (generation_ != index_.generation_) return;
  for (size_t i = first_note_; i < index_.notes_.size(); ++i) {
    const Written& note = index_.notes_[i];
    table_->Add(note.at.dvs, note.at.port, note.vif);
  }
  for (const Writing* const writing : index_.writings_) {
    table_->Add(writing->at_.dvs, writing->at_.port, writing->vif_);
  }
  std::erase_if(index_.doubts_, [this](const auto& doubt) { return doubt.second <= begun_; });
  const auto found = [this](const std::string& vif) { return table_->Has(vif); };
  std::erase_if(index_.nowhere_, found);
  std::erase_if(index_.coming_, found);
  before = std::exchange(index_.table_, std::move(table_));
}

}  // namespace zem::zema
