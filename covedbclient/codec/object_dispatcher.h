#pragma once

#include <array>
#include <cstddef>

#include "proto/covedb/covedb.pb.h"

namespace zem::covedb {

/// One row of an ObjectDispatcher: which operation of `Owner` takes the objects of one type.
template <class Owner, class... Context>
struct ObjectHandler {
  orlane::zem::covedb::ObjectType type;
  void (Owner::*handle)(const orlane::zem::covedb::MonitorUpdateMsg& update, Context... context);
};

/// Hands each update of a monitor to the operation that handles its object type.  A table instead of a
/// switch, so that several monitors that share one module id can share one callback.
///
/// Threads: immutable; `Dispatch` from any thread.
template <size_t kCount, class Owner, class... Context>
class ObjectDispatcher {
 public:
  using Handler = ObjectHandler<Owner, Context...>;

  constexpr explicit ObjectDispatcher(const std::array<Handler, kCount>& handlers) : handlers_(handlers) {}

  /// Calls the handler of the update's object type.  Returns false when the type has none.
  [[nodiscard]] bool Dispatch(Owner& owner, const orlane::zem::covedb::MonitorUpdateMsg& update,
                              Context... context) const {
    for (const Handler& handler : handlers_) {
      if (handler.type != update.object_type()) continue;
      (owner.*handler.handle)(update, context...);
      return true;
    }
    return false;
  }

 private:
  const std::array<Handler, kCount> handlers_;
};

template <size_t kCount, class Owner, class... Context>
ObjectDispatcher(const std::array<ObjectHandler<Owner, Context...>, kCount>&)
    -> ObjectDispatcher<kCount, Owner, Context...>;

}  // namespace zem::covedb
