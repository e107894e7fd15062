#pragma once
// SASL PLAIN (RFC 4616) for the server end of a Proton transport, checked against a password store.
// Installed per transport, so clients in the same process keep the library's own mechanisms.

#include <proton/types.h>

#include "password_store.h"

namespace kv_suite {

// Offers PLAIN and nothing else on this transport; with tls_only not even that before TLS is up, so
// that no client is asked for its password in clear. The store outlives the transport. Call before
// the transport is given to the listener.
void offer_plain(pn_transport_t* transport, password_store& passwords, bool tls_only);

// The three parts of a PLAIN response. False when it has another form.
struct plain_credential {
  std::string authorize_as;
  std::string user;
  std::string_view password;  // views the response
};
[[nodiscard]] bool read_plain_response(std::string_view response, plain_credential& out);

}  // namespace kv_suite
