#pragma once
// Ownership guards for new/free pairs: raw pointers appear at the prescribed surface only and are
// taken into one of these on the first line behind it. Header only; no state, any thread.

#include <json-c/json.h>

#include <cstdlib>
#include <memory>

// For pairs whose free function takes the address of the caller's pointer and clears it.
template <auto Free>
struct kv_free_address {
  template <class T>
  void operator()(T* pointer) const noexcept {
    Free(&pointer);
  }
};

// For pairs whose free function takes the pointer itself.
template <auto Free>
struct kv_free_pointer {
  template <class T>
  void operator()(T* pointer) const noexcept {
    static_cast<void>(Free(pointer));
  }
};

using kv_json_ptr = std::unique_ptr<json_object, kv_free_pointer<json_object_put>>;
using kv_json_tokener_ptr = std::unique_ptr<json_tokener, kv_free_pointer<json_tokener_free>>;

// A text or buffer from the C allocator.
template <class T>
using kv_malloc_ptr = std::unique_ptr<T, kv_free_pointer<std::free>>;
using kv_text_ptr = kv_malloc_ptr<char>;
