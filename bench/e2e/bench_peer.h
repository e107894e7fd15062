#pragma once
// What the Proton programs of the end-to-end benchmark share: how they connect, and how they send.
#include <proton/delivery.h>
#include <proton/link.h>
#include <proton/connection_options.hpp>
#include <proton/sender.hpp>
#include <proton/ssl.hpp>

#include <cstdint>
#include <string>
#include <vector>

// A certificate file means TLS, none plain TCP.
inline proton::connection_options bench_options(const std::string& ca_file) {
  proton::connection_options options;
  options.user("bench").password("bench").sasl_allowed_mechs("PLAIN");
  if (ca_file.empty()) {
    options.sasl_allow_insecure_mechs(true);
  } else {
    options.ssl_client_options(proton::ssl_client_options(ca_file, proton::ssl::VERIFY_PEER_NAME));
  }
  return options;
}

inline std::string bench_url(const std::string& port) {
  return "localhost:" + port;
}

// Sends encoded messages under tags of its own.
class bench_link : proton::sender {
 public:
  bench_link() = default;
  explicit bench_link(const proton::sender& base) : proton::sender(base) {}
  void send(const std::vector<char>& bytes) {
    ++tag_;
    pn_delivery(pn_object(), pn_dtag(reinterpret_cast<const char*>(&tag_), sizeof tag_));
    pn_link_send(pn_object(), bytes.data(), bytes.size());
    pn_link_advance(pn_object());
  }

 private:
  std::uint64_t tag_ = 0;
};

// A reply of the size that a clean scan has.
inline const std::string kBenchReply =
    R"({"ReturnCode": 0, "Filler": ")" + std::string(258, 'r') + R"("})";
