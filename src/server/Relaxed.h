// Settings that command handlers write on client threads and the acquisition thread reads
// without a lock. A reader may see the old or the new value, never a torn one; no ordering
// with other fields is implied (nothing relies on it). Reads and writes look like plain field
// access, so the rest of the code reads as it would with ordinary members.
#pragma once

#include <atomic>

template <class T>
class Relaxed {
 public:
  constexpr Relaxed(T v = T()) noexcept : Value(v) {}
  Relaxed(const Relaxed& o) noexcept : Value(o.load()) {}
  Relaxed& operator=(const Relaxed& o) noexcept {
    store(o.load());
    return *this;
  }
  Relaxed& operator=(T v) noexcept {
    store(v);
    return *this;
  }
  operator T() const noexcept { return load(); }
  T load() const noexcept { return Value.load(std::memory_order_relaxed); }
  void store(T v) noexcept { Value.store(v, std::memory_order_relaxed); }

 private:
  std::atomic<T> Value;
};
