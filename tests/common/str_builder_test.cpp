#include "common/str_builder.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

namespace {

TEST(StrBuilder, StartsEmptyWithCapacity32) {
  const str_builder_ptr sb{str_builder_create()};
  ASSERT_NE(sb, nullptr);
  EXPECT_EQ(sb->capacity, 32U);
  EXPECT_EQ(str_builder_len(sb.get()), 0U);
  EXPECT_STREQ(str_builder_peek(sb.get()), "");
  str_builder_destroy(nullptr);
}

TEST(StrBuilder, AddsTextsPartsCharactersAndNumbers) {
  const str_builder_ptr sb{str_builder_create()};
  str_builder_add_str(sb.get(), "abc", 0);
  str_builder_add_str(sb.get(), "defg", 2);
  str_builder_add_char(sb.get(), '-');
  str_builder_add_int(sb.get(), INT_MIN);
  EXPECT_STREQ(str_builder_peek(sb.get()), "abcde--2147483648");
  str_builder_add_str(sb.get(), nullptr, 5);
  str_builder_add_str(sb.get(), "", 5);
  EXPECT_EQ(str_builder_len(sb.get()), 17U);
}

TEST(StrBuilder, DoublesItsCapacityWhenTheEndMarkWouldNotFit) {
  struct {
    std::size_t length;
    std::size_t capacity;
  } const rows[] = {{31, 32}, {32, 64}, {63, 64}, {64, 128}, {1000, 1024}, {1024, 2048}};
  for (const auto& row : rows) {
    const str_builder_ptr sb{str_builder_create()};
    str_builder_add_str(sb.get(), std::string(row.length, 'x').c_str(), 0);
    EXPECT_EQ(sb->capacity, row.capacity) << row.length;
    EXPECT_EQ(str_builder_peek(sb.get()), std::string(row.length, 'x'));
  }
}

TEST(StrBuilder, TextThatNoMemoryCanHoldAddsNothing) {
  const str_builder_ptr sb{str_builder_create()};
  str_builder_add_str(sb.get(), "abc", 0);
  str_builder_add_str(sb.get(), "x", SIZE_MAX);
  EXPECT_STREQ(str_builder_peek(sb.get()), "abc");
}

TEST(StrBuilder, TruncatesDropsAndClears) {
  const str_builder_ptr sb{str_builder_create()};
  str_builder_add_str(sb.get(), "abcdef", 0);
  str_builder_truncate(sb.get(), 9);
  EXPECT_STREQ(str_builder_peek(sb.get()), "abcdef");
  str_builder_truncate(sb.get(), 5);
  str_builder_drop(sb.get(), 2);
  EXPECT_STREQ(str_builder_peek(sb.get()), "cde");
  str_builder_drop(sb.get(), 0);
  str_builder_drop(sb.get(), 99);
  EXPECT_STREQ(str_builder_peek(sb.get()), "");
  str_builder_add_char(sb.get(), 'z');
  str_builder_clear(sb.get());
  EXPECT_EQ(str_builder_len(sb.get()), 0U);
}

TEST(StrBuilder, DumpIsACopyOfTheCaller) {
  const str_builder_ptr sb{str_builder_create()};
  str_builder_add_str(sb.get(), "abc", 0);
  const kv_text_ptr copy{str_builder_dump(sb.get())};
  str_builder_clear(sb.get());
  EXPECT_STREQ(copy.get(), "abc");
}

TEST(StrBuilder, NullBuilderIsHarmless) {
  str_builder_add_str(nullptr, "a", 0);
  str_builder_add_char(nullptr, 'a');
  str_builder_truncate(nullptr, 0);
  str_builder_drop(nullptr, 1);
  EXPECT_EQ(str_builder_len(nullptr), 0U);
  EXPECT_EQ(str_builder_peek(nullptr), nullptr);
  EXPECT_EQ(str_builder_dump(nullptr), nullptr);
}

}  // namespace
