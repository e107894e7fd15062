#include "messaging/kv_request_reply_types.h"

#include <cstdlib>

namespace {

// Records come from the C allocator, zero-filled, like the texts that they hold.
template <class T>
T* s_new_record() {
  return static_cast<T*>(std::calloc(1, sizeof(T)));
}

}  // namespace

kv_message_t* kv_message_new() {
  return s_new_record<kv_message_t>();
}

void kv_message_init(kv_message_t* message) {
  if (message != nullptr) {
    *message = kv_message_t{};
  }
}

kv_const_message_t* kv_const_message_new() {
  return s_new_record<kv_const_message_t>();
}

void kv_const_message_init(kv_const_message_t* message) {
  if (message != nullptr) {
    *message = kv_const_message_t{};
  }
}

void kv_message_free(kv_message_t* message) {
  if (message == nullptr) {
    return;
  }
  std::free(message->json);
  message->json = nullptr;
  std::free(message->data);
  message->data = nullptr;
}

void kv_message_free_p(kv_message_t* message) {
  kv_message_free(message);
  std::free(message);
}

kv_request_reply_t* kv_request_reply_new() {
  auto* pair = s_new_record<kv_request_reply_t>();
  if (pair != nullptr) {
    pair->request = kv_message_new();
    pair->reply = kv_message_new();
  }
  return pair;
}

kv_const_request_reply_t* kv_const_request_reply_new() {
  auto* pair = s_new_record<kv_const_request_reply_t>();
  if (pair != nullptr) {
    pair->request = kv_const_message_new();
    pair->reply = kv_message_new();
  }
  return pair;
}

void kv_request_reply_free(kv_request_reply_t* pair) {
  if (pair == nullptr) {
    return;
  }
  kv_message_free_p(pair->request);
  pair->request = nullptr;
  kv_message_free_p(pair->reply);
  pair->reply = nullptr;
}

void kv_request_reply_free_p(kv_request_reply_t* pair) {
  kv_request_reply_free(pair);
  std::free(pair);
}

void kv_request_reply_free_structs(kv_request_reply_t* pair) {
  if (pair == nullptr) {
    return;
  }
  std::free(pair->request);
  pair->request = nullptr;
  std::free(pair->reply);
  std::free(pair);
}

void kv_const_request_reply_free_structs(kv_const_request_reply_t* pair) {
  if (pair == nullptr) {
    return;
  }
  std::free(pair->request);
  pair->request = nullptr;
  std::free(pair->reply);
  std::free(pair);
}
