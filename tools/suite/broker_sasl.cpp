#include "broker_sasl.h"

#include <proton/sasl.h>
#include <proton/sasl_plugin.h>

#include <memory>

namespace kv_suite {
namespace {

// RFC 4616 leaves the lengths open; these are far above any real credential.
constexpr std::size_t kMaxResponse = 4096;

// Lives as long as the transport's SASL layer, which keeps a pointer to the user's name.
struct sasl_session {
  password_store* passwords;
  bool tls_only;
  std::string user;
};

sasl_session* s_session(pn_transport_t* transport) {
  return static_cast<sasl_session*>(pnx_sasl_get_context(transport));
}

void s_free(pn_transport_t* transport) {
  delete s_session(transport);
  pnx_sasl_set_context(transport, nullptr);
}

bool s_may_see_passwords(pn_transport_t* transport) {
  const sasl_session* session = s_session(transport);
  return session != nullptr && (!session->tls_only || pnx_sasl_is_transport_encrypted(transport));
}

const char* s_list_mechanisms(pn_transport_t* transport) {
  return s_may_see_passwords(transport) ? "PLAIN" : "";
}

bool s_init_server(pn_transport_t* transport) {
  pnx_sasl_set_desired_state(transport, SASL_POSTED_MECHANISMS);
  return true;
}

bool s_accepts(sasl_session& session, std::string_view response) noexcept {
  try {
    plain_credential credential;
    if (!read_plain_response(response, credential))
      return false;
    if (!credential.authorize_as.empty() && credential.authorize_as != credential.user)
      return false;
    if (!session.passwords->check(credential.user, credential.password))
      return false;
    session.user = std::move(credential.user);
    return true;
  } catch (...) {
    return false;
  }
}

void s_process_init(pn_transport_t* transport, const char* mechanism, const pn_bytes_t* response) {
  sasl_session* session = s_session(transport);
  if (s_may_see_passwords(transport) && std::string_view(mechanism) == "PLAIN" &&
      s_accepts(*session, {response->start, response->size})) {
    pnx_sasl_set_succeeded(transport, session->user.c_str(), nullptr);
  } else {
    pnx_sasl_set_failed(transport);
  }
  pnx_sasl_set_desired_state(transport, SASL_POSTED_OUTCOME);
}

// PLAIN is one message from the client: whatever else comes is a failure.
void s_process_response(pn_transport_t* transport, const pn_bytes_t*) {
  pnx_sasl_set_failed(transport);
  pnx_sasl_set_desired_state(transport, SASL_POSTED_OUTCOME);
}

// The client's half of the interface is never used on these transports.
bool s_init_client(pn_transport_t*) {
  return false;
}
bool s_process_mechanisms(pn_transport_t*, const char*) {
  return false;
}
void s_ignore(pn_transport_t*) {}
void s_ignore_bytes(pn_transport_t*, const pn_bytes_t*) {}

// PLAIN brings no security layer of its own.
bool s_can_encrypt(pn_transport_t*) {
  return false;
}
ssize_t s_max_encrypt_size(pn_transport_t*) {
  return 0;
}
ssize_t s_code(pn_transport_t*, pn_bytes_t, pn_bytes_t*) {
  return 0;
}

constexpr pnx_sasl_implementation kPlain{s_free,
                                         s_list_mechanisms,
                                         s_init_server,
                                         s_init_client,
                                         s_ignore,
                                         s_process_init,
                                         s_process_response,
                                         s_process_mechanisms,
                                         s_ignore_bytes,
                                         s_ignore_bytes,
                                         s_can_encrypt,
                                         s_max_encrypt_size,
                                         s_code,
                                         s_code};

}  // namespace

void offer_plain(pn_transport_t* transport, password_store& passwords, bool tls_only) {
  static_cast<void>(pn_sasl(transport));
  auto session = std::make_unique<sasl_session>(sasl_session{&passwords, tls_only, {}});
  pnx_sasl_set_implementation(transport, &kPlain, session.release());
}

bool read_plain_response(std::string_view response, plain_credential& out) {
  if (response.size() > kMaxResponse)
    return false;
  const std::size_t first = response.find('\0');
  if (first == std::string_view::npos)
    return false;
  const std::size_t second = response.find('\0', first + 1);
  if (second == std::string_view::npos)
    return false;
  out.authorize_as = response.substr(0, first);
  out.user = response.substr(first + 1, second - first - 1);
  out.password = response.substr(second + 1);
  return !out.user.empty() && !out.password.empty() &&
         out.password.find('\0') == std::string_view::npos;
}

}  // namespace kv_suite
