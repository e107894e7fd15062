#include "messaging/kv_secretbox_encryption.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <cstring>
#include <string>
#include <string_view>

#include "support/trace_capture.h"

namespace {

struct cipher_text {
  kv_malloc_ptr<unsigned char> bytes;
  std::size_t length = 0;
};

int encrypt(std::string_view plain, kv_secretbox_key* key, cipher_text& out) {
  unsigned char* cipher = nullptr;
  const int rc = kv_secretbox_encrypt_buffer(reinterpret_cast<const unsigned char*>(plain.data()),
                                             plain.size(), key, &cipher, &out.length);
  out.bytes.reset(cipher);
  return rc;
}

int decrypt(const cipher_text& cipher, const kv_secretbox_key* key, std::string& out) {
  unsigned char* plain = nullptr;
  std::size_t length = 0;
  const int rc = kv_secretbox_decrypt_buffer(cipher.bytes.get(), cipher.length, key->key,
                                             key->nonce, &plain, &length);
  const kv_malloc_ptr<unsigned char> guard{plain};
  if (rc == 0) {
    out.assign(reinterpret_cast<const char*>(plain), length);
  }
  return rc;
}

std::string hex(const unsigned char* bytes, std::size_t length) {
  std::string text(2 * length + 1, '\0');
  sodium_bin2hex(text.data(), text.size(), bytes, length);
  text.pop_back();
  return text;
}

class secretbox : public testing::Test {
 protected:
  static void SetUpTestSuite() { shared_key() = kv_secretbox_generate_key("password"); }
  static void TearDownTestSuite() { kv_secretbox_free_key(shared_key()); }
  static kv_secretbox_key*& shared_key() {
    static kv_secretbox_key* key = nullptr;
    return key;
  }
  kv_secretbox_key* key_ = shared_key();
};

}  // namespace

TEST_F(secretbox, DecryptsWhatItEncrypted) {
  cipher_text cipher;
  ASSERT_EQ(encrypt("attack at dawn", key_, cipher), 0);
  EXPECT_EQ(cipher.length, std::strlen("attack at dawn") + 16);
  std::string plain;
  ASSERT_EQ(decrypt(cipher, key_, plain), 0);
  EXPECT_EQ(plain, "attack at dawn");
}

TEST_F(secretbox, TwoEncryptionsDifferAndTheirNoncesAreOneApart) {
  cipher_text first;
  ASSERT_EQ(encrypt("same", key_, first), 0);
  std::string nonce(reinterpret_cast<const char*>(key_->nonce), KV_SECRETBOX_NONCE_SIZE);
  const std::string first_hex = key_->nonce_hex;
  cipher_text second;
  ASSERT_EQ(encrypt("same", key_, second), 0);
  EXPECT_NE(std::memcmp(first.bytes.get(), second.bytes.get(), first.length), 0);
  EXPECT_NE(first_hex, key_->nonce_hex);
  sodium_increment(reinterpret_cast<unsigned char*>(nonce.data()), nonce.size());
  EXPECT_EQ(hex(reinterpret_cast<const unsigned char*>(nonce.data()), nonce.size()),
            key_->nonce_hex);
}

TEST_F(secretbox, NonceHexAlwaysShowsTheNonce) {
  EXPECT_EQ(std::strlen(key_->nonce_hex), 48u);
  EXPECT_EQ(hex(key_->nonce, KV_SECRETBOX_NONCE_SIZE), key_->nonce_hex);
}

TEST_F(secretbox, OneAlteredByteNeverDecrypts) {
  const trace_capture trace;
  cipher_text cipher;
  ASSERT_EQ(encrypt("0123456789", key_, cipher), 0);
  for (std::size_t i = 0; i < cipher.length; ++i) {
    cipher.bytes.get()[i] ^= 1;
    std::string plain;
    EXPECT_EQ(decrypt(cipher, key_, plain), -1) << i;
    cipher.bytes.get()[i] ^= 1;
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to decrypt buffer"), static_cast<int>(cipher.length));
}

TEST_F(secretbox, ACipherTextShorterThanItsTagNeverDecrypts) {
  for (std::size_t length = 0; length <= 16; ++length) {
    cipher_text cipher{
        kv_malloc_ptr<unsigned char>(static_cast<unsigned char*>(std::calloc(1, length + 1))),
        length};
    std::string plain;
    EXPECT_EQ(decrypt(cipher, key_, plain), -1) << length;
  }
}

TEST_F(secretbox, MissingInputIsRefused) {
  const trace_capture trace;
  cipher_text cipher;
  EXPECT_EQ(encrypt("", key_, cipher), -1);
  EXPECT_EQ(encrypt("text", nullptr, cipher), -1);
  EXPECT_EQ(encrypt({}, key_, cipher), -1);
  kv_secretbox_key without_key{nullptr, key_->nonce, key_->nonce_hex};
  EXPECT_EQ(encrypt("text", &without_key, cipher), -1);
  kv_secretbox_key without_nonce{key_->key, nullptr, key_->nonce_hex};
  EXPECT_EQ(encrypt("text", &without_nonce, cipher), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid input"), 5);
}

TEST(secretbox_key, IsTheSameForTheSamePassword) {
  const kv_malloc_ptr<unsigned char> first{kv_secretbox_derive_key("one")};
  const kv_malloc_ptr<unsigned char> second{kv_secretbox_derive_key("one")};
  const kv_malloc_ptr<unsigned char> other{kv_secretbox_derive_key("two")};
  ASSERT_TRUE(first && second && other);
  EXPECT_EQ(std::memcmp(first.get(), second.get(), KV_SECRETBOX_KEY_SIZE), 0);
  EXPECT_NE(std::memcmp(first.get(), other.get(), KV_SECRETBOX_KEY_SIZE), 0);
}

TEST(secretbox_key, NeedsAPassword) {
  const trace_capture trace;
  EXPECT_EQ(kv_secretbox_generate_key(nullptr), nullptr);
  EXPECT_EQ(trace.count("ERROR", "Failed to generate secretbox key struct, cleaning up"), 1);
}

// Known answers, made with another binding of the algorithms (PyNaCl).
TEST(secretbox_known_answer, KeyAndCipherTextAreThoseOfAnotherBinding) {
  const kv_secretbox_key_ptr key{kv_secretbox_generate_key("password")};
  ASSERT_TRUE(key);
  EXPECT_EQ(hex(key->key, KV_SECRETBOX_KEY_SIZE),
            "85ca220cf34153ad5effcd9bacc0c4a8b77fc175dd68e567a154505581a64533");
  for (std::size_t i = 0; i < KV_SECRETBOX_NONCE_SIZE; ++i) {
    key->nonce[i] = static_cast<unsigned char>(i);
  }
  cipher_text cipher;
  ASSERT_EQ(encrypt("attack at dawn", key.get(), cipher), 0);
  EXPECT_EQ(hex(cipher.bytes.get(), cipher.length),
            "77524bc96054b39e0a6c63f1661f8154aabf48e12b75bc2368dbafe6496c");
}
