#pragma once

#include <memory>
#include <utility>

namespace zem {

/// A callback that does not keep its owner: calls `function(owner, arguments...)` while the owner lives, else
/// `gone()`, which logs so.
template <class Owner, class Function, class Gone>
auto WeakCall(std::weak_ptr<Owner> owner, Function function, Gone gone) {
  return [owner = std::move(owner), function = std::move(function),
          gone = std::move(gone)](auto&&... arguments) mutable {
    if (const std::shared_ptr<Owner> alive = owner.lock()) {
      function(*alive, std::forward<decltype(arguments)>(arguments)...);
    } else {
      gone();
    }
  };
}

}  // namespace zem
