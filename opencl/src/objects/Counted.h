// Reference counts of the interface's objects, and the holder that keeps one reference.
#pragma once

#include <atomic>
#include <utility>

namespace ravu::opencl {

// Starts with the one reference that its creator hands to the caller.
class Counted {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  virtual ~Counted() = default;

  void retain() { count_.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  std::atomic<int> count_{1};
};

template <typename T>
class Ref {
 public:
  Ref() = default;
  Ref(const Ref& other) : object_(other.object_) {
    if (object_ != nullptr) object_->retain();
  }
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_ != nullptr) object_->release();
  }

  // Takes over the reference that `created` holds.
  static Ref adopt(T* created) {
    Ref ref;
    ref.object_ = created;
    return ref;
  }
  // Adds one.
  static Ref share(T* object) {
    if (object != nullptr) object->retain();
    return adopt(object);
  }
  // Hands the reference to the caller of the interface.
  T* detach() { return std::exchange(object_, nullptr); }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace ravu::opencl
