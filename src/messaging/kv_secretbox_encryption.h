#pragma once
// Authenticated encryption of message payloads: XSalsa20-Poly1305 (libsodium's crypto_secretbox)
// under a key derived from a password (Argon2id 1.3, RFC 9106). The cipher text is libsodium's
// combined form, the 16-byte tag followed by the encrypted bytes; the nonce travels beside it as
// hexadecimal text. A key record belongs to one thread at a time: every encryption changes its
// nonce.

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/kv_guard.h"

inline constexpr std::size_t KV_SECRETBOX_KEY_SIZE = 32;
inline constexpr std::size_t KV_SECRETBOX_NONCE_SIZE = 24;
inline constexpr std::size_t KV_SECRETBOX_TAG_SIZE = 16;

// Salt of the key derivation: every service that derives keys from the same password uses this one.
inline constexpr std::array<unsigned char, 16> KV_SECRETBOX_SALT = {
    'k', 'v', '-', 'a', 'v', '-', 'e', 'v', 'e', 'n', 't', '-', 's', 'a', 'l', 't'};

struct kv_secretbox_key {
  unsigned char* key;    // 32 bytes, owned
  unsigned char* nonce;  // 24 bytes, owned; the one that the last encryption used
  char* nonce_hex;       // the nonce as 48 lower-case digits, owned, kept equal to nonce
};

// A new 32-byte key (release with free), or null. Takes 64 MiB of memory and tenths of a second.
[[nodiscard]] unsigned char* kv_secretbox_derive_key(const char* password);
// A new record with a random nonce, or null.
[[nodiscard]] kv_secretbox_key* kv_secretbox_generate_key(const char* password);
void kv_secretbox_free_key(kv_secretbox_key* key);
using kv_secretbox_key_ptr =
    std::unique_ptr<kv_secretbox_key, kv_free_pointer<kv_secretbox_free_key>>;

// Encrypts under the record's next nonce into a new buffer (release with free) of length + 16
// bytes. Read nonce_hex right after the call. 0, or -1 with *cipher null.
[[nodiscard]] int kv_secretbox_encrypt_buffer(const unsigned char* plain, std::size_t length,
                                              kv_secretbox_key* key, unsigned char** cipher,
                                              std::size_t* cipher_length);
// Decrypts into a new buffer (release with free) of length - 16 bytes. 0, or -1 with *plain null.
[[nodiscard]] int kv_secretbox_decrypt_buffer(const unsigned char* cipher, std::size_t length,
                                              const unsigned char* key, const unsigned char* nonce,
                                              unsigned char** plain, std::size_t* plain_length);
