#pragma once

#include <map>
#include <memory>
#include <utility>

#include "framework/tasks/synchronizable.h"

namespace zem {

/// A map that is read often and changed seldom: readers take it as it stands and need no lock from then on.
///
/// Threads: all operations from any thread.
template <class Key, class Value>
class CopyOnWriteMap {
 public:
  using Map = std::map<Key, Value>;

  std::shared_ptr<const Map> Get() const {
    Synchronizer lock(lock_, __FILE__, __LINE__);
    return map_;
  }

  void Replace(Map map) {
    auto fresh = std::make_shared<const Map>(std::move(map));
    Synchronizer lock(lock_, __FILE__, __LINE__);
    map_.swap(fresh);
  }

  void Set(const Key& key, Value value) {
    Synchronizer lock(lock_, __FILE__, __LINE__);
    auto fresh = std::make_shared<Map>(*map_);
    (*fresh)[key] = std::move(value);
    map_ = std::move(fresh);
  }

  /// False when it was not there.
  bool Remove(const Key& key) {
    Synchronizer lock(lock_, __FILE__, __LINE__);
    if (!map_->contains(key)) return false;
    auto fresh = std::make_shared<Map>(*map_);
    fresh->erase(key);
    map_ = std::move(fresh);
    return true;
  }

 private:
  mutable Synchronizable lock_;  // guards map_
  std::shared_ptr<const Map> map_ = std::make_shared<const Map>();
};

}  // namespace zem
