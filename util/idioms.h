// Counted objects: the shared driver channel is one, held by every controller copied from the
// first. The count starts at 0; the first AddRef makes it 1, and the Release that brings it back
// to 0 disposes of the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>

namespace idioms {

// A count that went wrong: an AddRef on a disposed object, or a Dispose of a negative count.
class storage_exception : public std::exception {
 public:
  const char* what() const noexcept override { return "storage"; }
};

// A null reference to a counted object was followed.
class pointer_exception : public std::exception {
 public:
  const char* what() const noexcept override { return "pointer"; }
};

class storage {
 public:
  storage() = default;
  storage(const storage&) = delete;
  storage& operator=(const storage&) = delete;
  virtual ~storage() = default;

  // Throws storage_exception when the object was already spent (the new count is not above 0).
  void AddRef() {
    if (count.fetch_add(1, std::memory_order_acq_rel) + 1 <= 0) throw storage_exception();
  }
  // Disposes of the object when the count reaches 0 (or below).
  void Release() {
    if (count.fetch_sub(1, std::memory_order_acq_rel) - 1 <= 0) Dispose();
  }
  std::int32_t RefCount() const { return count.load(std::memory_order_acquire); }

 protected:
  // Deletes the object; throws storage_exception for a negative count.
  virtual void Dispose() {
    if (count.load(std::memory_order_acquire) < 0) throw storage_exception();
    delete this;
  }

 private:
  std::atomic<std::int32_t> count{0};
};

// A counted reference: AddRef on taking, Release on letting go; following a null one throws
// pointer_exception.
template <typename T>
class ref {
 public:
  ref() = default;
  explicit ref(T* object) : object_(object) {
    if (object_) object_->AddRef();
  }
  ref(const ref& other) : ref(other.object_) {}
  ref& operator=(const ref& other) {
    if (this != &other) {
      ref copy(other);
      std::swap(object_, copy.object_);
    }
    return *this;
  }
  ~ref() { reset(); }

  void reset() {
    T* old = object_;
    object_ = nullptr;
    if (old) old->Release();
  }
  T* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  T* operator->() const {
    if (!object_) throw pointer_exception();
    return object_;
  }

 private:
  T* object_ = nullptr;
};

}  // namespace idioms
