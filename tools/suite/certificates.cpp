#include "certificates.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "common/kv_guard.h"
#include "file_helpers.h"

namespace kv_suite {
namespace {

using key_ptr = std::unique_ptr<EVP_PKEY, kv_free_pointer<EVP_PKEY_free>>;
using certificate_ptr = std::unique_ptr<X509, kv_free_pointer<X509_free>>;
using extension_ptr = std::unique_ptr<X509_EXTENSION, kv_free_pointer<X509_EXTENSION_free>>;
using bio_ptr = std::unique_ptr<BIO, kv_free_pointer<BIO_free>>;

constexpr long kYear = 365L * 24 * 3600;
constexpr long kValidity = 10 * kYear;
constexpr long kClockSkew = 3600;

void s_require(bool worked, const char* what) {
  if (worked)
    return;
  throw std::runtime_error(std::string("cannot make a certificate: ") + what + ": " +
                           ERR_error_string(ERR_get_error(), nullptr));
}

void s_add_extension(X509* certificate, X509* issuer, int kind, const char* value) {
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const extension_ptr extension{X509V3_EXT_conf_nid(nullptr, &context, kind, value)};
  s_require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "extension");
}

// 127 random bits, positive and not zero (RFC 5280, section 4.1.2.2).
void s_set_serial(X509* certificate) {
  unsigned char bytes[16];
  s_require(RAND_bytes(bytes, sizeof bytes) == 1, "random numbers");
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x3f) | 0x40);
  std::unique_ptr<BIGNUM, kv_free_pointer<BN_free>> number{BN_bin2bn(bytes, sizeof bytes, nullptr)};
  s_require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)),
            "serial number");
}

certificate_ptr s_new_certificate(const char* name, EVP_PKEY* key) {
  certificate_ptr certificate{X509_new()};
  s_require(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1, "memory");
  s_set_serial(certificate.get());
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kClockSkew);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidity);
  s_require(
      X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>(name), -1, -1, 0) == 1 &&
          X509_set_pubkey(certificate.get(), key) == 1,
      "subject");
  return certificate;
}

void s_sign(X509* certificate, X509* issuer, EVP_PKEY* issuer_key) {
  s_require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1 &&
                X509_sign(certificate, issuer_key, EVP_sha256()) > 0,
            "signature");
}

certificate_ptr s_make_authority(EVP_PKEY* key) {
  certificate_ptr authority = s_new_certificate("kv-av-suite authority", key);
  s_add_extension(authority.get(), authority.get(), NID_basic_constraints,
                  "critical,CA:TRUE,pathlen:0");
  s_add_extension(authority.get(), authority.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  s_add_extension(authority.get(), authority.get(), NID_subject_key_identifier, "hash");
  s_sign(authority.get(), authority.get(), key);
  return authority;
}

certificate_ptr s_make_server(EVP_PKEY* key, X509* authority, EVP_PKEY* authority_key) {
  certificate_ptr server = s_new_certificate("localhost", key);
  s_add_extension(server.get(), authority, NID_basic_constraints, "critical,CA:FALSE");
  s_add_extension(server.get(), authority, NID_key_usage, "critical,digitalSignature");
  s_add_extension(server.get(), authority, NID_ext_key_usage, "serverAuth");
  s_add_extension(server.get(), authority, NID_subject_alt_name,
                  "DNS:localhost,DNS:127.0.0.1,IP:127.0.0.1");
  s_add_extension(server.get(), authority, NID_authority_key_identifier, "keyid");
  s_sign(server.get(), authority, authority_key);
  return server;
}

template <class Write>
void s_save(const std::string& path, Write write) {
  const bio_ptr memory{BIO_new(BIO_s_mem())};
  s_require(memory && write(memory.get()) == 1, "PEM");
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  write_private_file(path, {text, static_cast<std::size_t>(size)});
}

}  // namespace

void make_certificates(const certificate_paths& paths) {
  namespace fs = std::filesystem;
  if (fs::exists(paths.authority) && fs::exists(paths.certificate) && fs::exists(paths.key))
    return;
  const key_ptr authority_key{EVP_EC_gen("P-256")};
  const key_ptr server_key{EVP_EC_gen("P-256")};
  s_require(authority_key && server_key, "key");
  const certificate_ptr authority = s_make_authority(authority_key.get());
  const certificate_ptr server =
      s_make_server(server_key.get(), authority.get(), authority_key.get());
  s_save(paths.key, [&](BIO* out) {
    return PEM_write_bio_PrivateKey(out, server_key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  s_save(paths.certificate, [&](BIO* out) { return PEM_write_bio_X509(out, server.get()); });
  s_save(paths.authority, [&](BIO* out) { return PEM_write_bio_X509(out, authority.get()); });
}

}  // namespace kv_suite
