#pragma once
// The records that carry one request and its reply between service code and transports. A message
// is a JSON text and, optionally, one block of binary data. Plain records without locks: each
// belongs to the thread that holds it. Texts and data of owned members come from the C allocator.

#include <cstdint>

#include "common/kv_guard.h"

struct kv_message_t {
  char* json;               // NUL-terminated, owned; null when there is none
  void* data;               // owned; null when there is none
  std::uint64_t data_size;  // bytes at data
};

// Same shape, but json and data stay the caller's.
struct kv_const_message_t {
  const char* json;
  const void* data;
  std::uint64_t data_size;
};

struct kv_request_reply_t {
  kv_message_t* request;  // owned
  kv_message_t* reply;    // owned
};

struct kv_const_request_reply_t {
  kv_const_message_t* request;  // record owned, its texts and data borrowed
  kv_message_t* reply;          // owned
};

[[nodiscard]] kv_message_t* kv_message_new();
void kv_message_init(kv_message_t* message);
[[nodiscard]] kv_const_message_t* kv_const_message_new();
void kv_const_message_init(kv_const_message_t* message);
// Frees and clears the members; the record stays.
void kv_message_free(kv_message_t* message);
void kv_message_free_p(kv_message_t* message);

[[nodiscard]] kv_request_reply_t* kv_request_reply_new();
[[nodiscard]] kv_const_request_reply_t* kv_const_request_reply_new();
// Frees both messages with their members; the pair stays.
void kv_request_reply_free(kv_request_reply_t* pair);
void kv_request_reply_free_p(kv_request_reply_t* pair);
// Free the records only; the texts and data inside are not touched.
void kv_request_reply_free_structs(kv_request_reply_t* pair);
void kv_const_request_reply_free_structs(kv_const_request_reply_t* pair);

// Releases a const pair together with what its reply owns.
struct kv_const_request_reply_deleter {
  void operator()(kv_const_request_reply_t* pair) const noexcept {
    kv_message_free(pair->reply);
    kv_const_request_reply_free_structs(pair);
  }
};
using kv_const_request_reply_ptr =
    std::unique_ptr<kv_const_request_reply_t, kv_const_request_reply_deleter>;
