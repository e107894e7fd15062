#include "messaging/kv_secretbox_encryption.h"

#include <sodium.h>

#include <cstdlib>
#include <cstring>

#include "logging/log-helper.h"

namespace {

constexpr std::size_t kNonceHexSize = 2 * KV_SECRETBOX_NONCE_SIZE + 1;
constexpr unsigned long long kOperations = 2;
constexpr std::size_t kMemory = 67108864;

static_assert(KV_SECRETBOX_KEY_SIZE == crypto_secretbox_KEYBYTES);
static_assert(KV_SECRETBOX_NONCE_SIZE == crypto_secretbox_NONCEBYTES);
static_assert(KV_SECRETBOX_TAG_SIZE == crypto_secretbox_MACBYTES);
static_assert(KV_SECRETBOX_SALT.size() == crypto_pwhash_SALTBYTES);
static_assert(kOperations == crypto_pwhash_OPSLIMIT_INTERACTIVE);
static_assert(kMemory == crypto_pwhash_MEMLIMIT_INTERACTIVE);

template <class T>
T* s_allocate(std::size_t size) {
  return static_cast<T*>(std::calloc(1, size));
}

void s_write_nonce_hex(kv_secretbox_key* key) {
  sodium_bin2hex(key->nonce_hex, kNonceHexSize, key->nonce, KV_SECRETBOX_NONCE_SIZE);
}

// Allocates the members and fills them; on failure the record holds what exists so far.
bool s_fill_key(kv_secretbox_key* key, const char* password) {
  key->nonce = s_allocate<unsigned char>(KV_SECRETBOX_NONCE_SIZE);
  if (key->nonce == nullptr) {
    KV_LOG_ERROR("Failed to allocate memory for nonce");
    return false;
  }
  key->nonce_hex = s_allocate<char>(kNonceHexSize);
  if (key->nonce_hex == nullptr) {
    KV_LOG_ERROR("Failed to allocate memory for nonce hex");
    return false;
  }
  randombytes_buf(key->nonce, KV_SECRETBOX_NONCE_SIZE);
  s_write_nonce_hex(key);
  key->key = kv_secretbox_derive_key(password);
  return key->key != nullptr;
}

bool s_is_usable(const unsigned char* plain, std::size_t length, const kv_secretbox_key* key) {
  return length != 0 && plain != nullptr && key != nullptr && key->key != nullptr &&
         key->nonce != nullptr;
}

}  // namespace

unsigned char* kv_secretbox_derive_key(const char* password) {
  if (password == nullptr || sodium_init() < 0) {
    KV_LOG_ERROR("Failed to derive key from password and salt");
    return nullptr;
  }
  kv_malloc_ptr<unsigned char> key{s_allocate<unsigned char>(KV_SECRETBOX_KEY_SIZE)};
  if (!key) {
    KV_LOG_ERROR("Failed to allocate memory for key");
    return nullptr;
  }
  if (crypto_pwhash(key.get(), KV_SECRETBOX_KEY_SIZE, password, std::strlen(password),
                    KV_SECRETBOX_SALT.data(), kOperations, kMemory,
                    crypto_pwhash_ALG_ARGON2ID13) != 0) {
    KV_LOG_ERROR("Failed to derive key from password and salt");
    return nullptr;
  }
  KV_LOG_DEBUG("Derived key from password and salt");
  return key.release();
}

kv_secretbox_key* kv_secretbox_generate_key(const char* password) {
  if (sodium_init() < 0) {
    KV_LOG_ERROR("Failed to generate secretbox key struct, cleaning up");
    return nullptr;
  }
  kv_secretbox_key_ptr key{s_allocate<kv_secretbox_key>(sizeof(kv_secretbox_key))};
  if (!key) {
    KV_LOG_ERROR("Failed to allocate memory for secretbox key");
  }
  if (!key || !s_fill_key(key.get(), password)) {
    KV_LOG_ERROR("Failed to generate secretbox key struct, cleaning up");
    return nullptr;
  }
  return key.release();
}

void kv_secretbox_free_key(kv_secretbox_key* key) {
  if (key == nullptr) {
    return;
  }
  if (key->key != nullptr) {
    sodium_memzero(key->key, KV_SECRETBOX_KEY_SIZE);
  }
  std::free(key->key);
  std::free(key->nonce);
  std::free(key->nonce_hex);
  std::free(key);
}

int kv_secretbox_encrypt_buffer(const unsigned char* plain, std::size_t length,
                                kv_secretbox_key* key, unsigned char** cipher,
                                std::size_t* cipher_length) {
  *cipher = nullptr;
  if (!s_is_usable(plain, length, key)) {
    KV_LOG_ERROR("Invalid input");
    return -1;
  }
  // Before, not after: no two encryptions under one record may share a nonce, failed ones included.
  sodium_increment(key->nonce, KV_SECRETBOX_NONCE_SIZE);
  s_write_nonce_hex(key);
  kv_malloc_ptr<unsigned char> buffer;
  if (length <= SIZE_MAX - KV_SECRETBOX_TAG_SIZE) {
    buffer.reset(s_allocate<unsigned char>(length + KV_SECRETBOX_TAG_SIZE));
  }
  if (!buffer) {
    KV_LOG_ERROR("Failed to allocate memory for encrypted buffer");
    return -1;
  }
  KV_LOG_DEBUG("Encrypting buffer");
  if (crypto_secretbox_easy(buffer.get(), plain, length, key->nonce, key->key) != 0) {
    KV_LOG_ERROR("Failed to encrypt buffer");
    return -1;
  }
  KV_LOG_DEBUG("Encrypted buffer: %p", static_cast<void*>(buffer.get()));
  *cipher_length = length + KV_SECRETBOX_TAG_SIZE;
  *cipher = buffer.release();
  return 0;
}

int kv_secretbox_decrypt_buffer(const unsigned char* cipher, std::size_t length,
                                const unsigned char* key, const unsigned char* nonce,
                                unsigned char** plain, std::size_t* plain_length) {
  *plain = nullptr;
  if (cipher == nullptr || key == nullptr || nonce == nullptr || length < KV_SECRETBOX_TAG_SIZE) {
    KV_LOG_ERROR("Failed to decrypt buffer");
    return -1;
  }
  const std::size_t plain_size = length - KV_SECRETBOX_TAG_SIZE;
  // One byte at least, so that an empty text is told apart from a failed allocation.
  kv_malloc_ptr<unsigned char> buffer{s_allocate<unsigned char>(plain_size == 0 ? 1 : plain_size)};
  if (!buffer) {
    KV_LOG_ERROR("Failed to allocate memory for decrypted buffer");
    return -1;
  }
  if (crypto_secretbox_open_easy(buffer.get(), cipher, length, nonce, key) != 0) {
    KV_LOG_ERROR("Failed to decrypt buffer");
    return -1;
  }
  *plain_length = plain_size;
  *plain = buffer.release();
  return 0;
}
