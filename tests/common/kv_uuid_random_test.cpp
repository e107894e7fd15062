#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include "common/KVstrerror.h"
#include "common/kv_secure_random.h"
#include "common/kv_uuid.h"

namespace {

TEST(Uuid, TextHas36LowerCaseCharacters) {
  const kv_uuid uuid{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                     0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  EXPECT_EQ(kv_uuid_text(uuid), "00112233-4455-6677-8899-aabbccddeeff");
}

TEST(Uuid, VersionsAreTimeAndRandom) {
  EXPECT_EQ(kv_uuid_text(kv_uuid_from_time())[14], '1');
  EXPECT_EQ(kv_uuid_text(kv_uuid_random())[14], '4');
}

TEST(Uuid, NoTwoAreAlike) {
  std::set<kv_uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(seen.insert(kv_uuid_from_time()).second);
    EXPECT_TRUE(seen.insert(kv_uuid_random()).second);
  }
}

TEST(SecureRandomText, HasLengthAndAlphabet) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{32}}) {
    const std::string text = kv_secure_random_text(length);
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(
        text.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
        std::string::npos);
  }
}

TEST(SecureRandomText, UsesTheWholeAlphabetAndDoesNotRepeat) {
  const std::string text = kv_secure_random_text(20000);
  EXPECT_EQ(std::set<char>(text.begin(), text.end()).size(), 62U);
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(seen.insert(kv_secure_random_text(16)).second);
  }
}

TEST(Strerror, TextIsTheSystemsAndBelongsToTheThread) {
  EXPECT_STREQ(KVstrerror(ENOENT), "No such file or directory");
  const char* const mine = KVstrerror(EPERM);
  std::thread([] { EXPECT_STREQ(KVstrerror(EIO), "Input/output error"); }).join();
  EXPECT_STREQ(mine, "Operation not permitted");
  EXPECT_STREQ(KVstrerror(99999), "Unknown error 99999");
}

}  // namespace
