#pragma once

#include <atomic>

namespace zem {

/// Intrusive shared ownership of objects that cross the C interfaces.
class IRefCountable {
 public:
  virtual ~IRefCountable() = default;
  virtual void AddRef() const = 0;
  virtual void Release() const = 0;
};

/// Counts the references to a `T`; the last release deletes it.  A new object has none until somebody takes
/// it.
template <class T, class Interface = IRefCountable>
class RefCounted : public Interface {
 public:
  void AddRef() const override { count_.fetch_add(1, std::memory_order_relaxed); }
  void Release() const override {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  mutable std::atomic<int> count_{0};
};

template <class T, class Interface>
void intrusive_ptr_add_ref(const RefCounted<T, Interface>* object) {
  object->AddRef();
}

template <class T, class Interface>
void intrusive_ptr_release(const RefCounted<T, Interface>* object) {
  object->Release();
}

}  // namespace zem
