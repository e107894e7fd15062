#pragma once
// Certificates for a broker of one machine: an own authority and a server certificate signed by it,
// made with OpenSSL. Called once at start.

#include <string>

namespace kv_suite {

struct certificate_paths {
  std::string authority;    // PEM; what clients trust
  std::string certificate;  // PEM
  std::string key;          // PEM, mode 0600
};

// Makes all three files unless all exist; the authority's own key is thrown away, so that nobody
// can sign a second certificate with it. The server certificate names localhost and 127.0.0.1, the
// latter also as a DNS name, which is where Proton looks. Throws std::runtime_error.
void make_certificates(const certificate_paths& paths);

}  // namespace kv_suite
