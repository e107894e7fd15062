#pragma once
// The C objects behind Proton's C++ handles, for what the C++ binding does not offer. Container
// thread only, like the handles.

#include <proton/types.h>
#include <proton/receiver.hpp>
#include <proton/sender.hpp>

template <class Handle>
struct kv_link_access : Handle {
  explicit kv_link_access(const Handle& base) : Handle(base) {}
  [[nodiscard]] pn_link_t* get() const { return this->pn_object(); }
};

[[nodiscard]] inline pn_link_t* kv_sender_link(const proton::sender& sender) {
  return kv_link_access<proton::sender>(sender).get();
}
[[nodiscard]] inline pn_link_t* kv_receiver_link(const proton::receiver& receiver) {
  return kv_link_access<proton::receiver>(receiver).get();
}
