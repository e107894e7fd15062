#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "activecontent/kvactivecontent_getNextTag.h"
#include "activecontent/kvactivecontent_markup.h"
#include "support/markup_product.h"
#include "support/trace_capture.h"

using namespace std::string_literals;

namespace {

// A tag buffer as callers hold it.
struct tag_buffer {
  std::size_t size = KV_TAG_BUFFER_STEP;
  char* tag = static_cast<char*>(std::calloc(1, size));
  std::size_t length = 0;
  ~tag_buffer() { std::free(tag); }
};

std::vector<std::string> s_tags(const std::string& text) {
  tag_buffer buffer;
  std::vector<std::string> tags;
  std::size_t position = 0;
  while (kvactivecontent_getNextTag(text.data(), text.size(), &position, &buffer.tag,
                                    &buffer.length, &buffer.size) == 1) {
    tags.emplace_back(buffer.tag, buffer.length);
  }
  EXPECT_EQ(position, text.size());
  return tags;
}

// Filler that moves a text across the blocks in which it is classified.
constexpr std::size_t kOffsets[] = {0, 1, 30, 60, 61, 62, 63, 64, 65, 127, 4090};

struct tag_case {
  std::string text;
  std::vector<std::string> expected;
};

class HtmlNextTag : public testing::TestWithParam<tag_case> {};

TEST_P(HtmlNextTag, GivesTheTags) {
  for (const std::size_t offset : kOffsets) {
    EXPECT_EQ(s_tags(std::string(offset, 'x') + GetParam().text), GetParam().expected) << offset;
  }
}

using tags = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(Tags, HtmlNextTag,
                         testing::Values(tag_case{"", {}}, tag_case{"text", {}}, tag_case{"<", {}},
                                         tag_case{"<a", {}}, tag_case{"<>", {"<"}},
                                         tag_case{"<a>", {"<a"}},
                                         tag_case{"x<a>y</a>z", {"<a", "</a"}},
                                         tag_case{"<a <b>", {"<a <b"}}, tag_case{"a>b<c>", {"<c"}},
                                         tag_case{"<a><b><c", {"<a", "<b"}}));

INSTANTIATE_TEST_SUITE_P(
    Quotes, HtmlNextTag,
    testing::Values(tag_case{"<a b=\"c>d\">", {"<a b=\"c>d\""}},
                    tag_case{"<a b='c>d'>", {"<a b='c"}},
                    tag_case{"<a b=\"c\\\">d\">", {"<a b=\"c\\\">d\""}},
                    tag_case{"<a b=\\\">c", {"<a b=\\\""}}, tag_case{"<a b=\"c>d", {}},
                    tag_case{"<\"><b>", {}},
                    // The backslash rule looks at the text: a line feed parts it from the quote.
                    tag_case{"<a \\\n\"b>c\">", {"<a \\\"b>c\""}}));

INSTANTIATE_TEST_SUITE_P(Dropped, HtmlNextTag,
                         testing::Values(tag_case{"<a\r\nb\0c>"s, {"<abc"}},
                                         tag_case{"<\n>", {"<"}},
                                         tag_case{"<scr\nipt>", {"<script"}},
                                         tag_case{"<a \"\n>\n\">", {"<a \">\""}},
                                         tag_case{"<\n\n\n\n\n\n\n\n\n\n", {}}));

INSTANTIATE_TEST_SUITE_P(
    Comments, HtmlNextTag,
    testing::Values(
        tag_case{"<!-- <a> --><b>", {"<b"}}, tag_case{"<!--><b>", {"<b"}},
        tag_case{"<!---><b>", {"<b"}}, tag_case{"<!----><b>", {"<b"}},
        tag_case{"<!-- ---------><b>", {"<b"}}, tag_case{"<!-- -- > <a> --><b>", {"<b"}},
        tag_case{"<!-- - -> <a> --><b>", {"<b"}}, tag_case{"<!-- <a> --!><b>", {"<b"}},
        tag_case{"<!----!><b>", {"<b"}}, tag_case{"<!--!> <a> --><b>", {"<b"}},
        tag_case{"<!---!> <a> --><b>", {"<b"}}, tag_case{"<!-- -!> <a> --><b>", {"<b"}},
        tag_case{"<!-- --! > <a> --><b>", {"<b"}},
        // Hyphens with only dropped bytes between them are side by side; ">" must follow at once.
        tag_case{"<!\r-\n-> <a> --><b>", {"<a", "<b"}}, tag_case{"<!--x-\n\r\0-><b>"s, {"<b"}},
        tag_case{"<!--\n-><b>", {"<b"}}, tag_case{"<!--x--\n> <a> --><b>", {"<b"}},
        tag_case{"<!--x-\n-!><b>", {"<b"}},
        // An unclosed comment reaches to the end, and takes what was collected with it.
        tag_case{"<!-- <a><b>", {}}, tag_case{"<a !-- b> <c>--><d>", {"<d"}},
        tag_case{"<a b=\"!-- c\"> <c> --><d>", {"<d"}}, tag_case{"<a !- -b>", {"<a !- -b"}},
        tag_case{"<!doctype><!-x><!>", {"<!doctype", "<!-x", "<!"}},
        // Outside a tag it is text.
        tag_case{"!-- <a> -->", {"<a"}}));

}  // namespace

TEST(HtmlNextTagBuffer, GrowsTheBufferInSteps) {
  for (const std::size_t length : {KV_TAG_BUFFER_STEP - 3, KV_TAG_BUFFER_STEP - 2,
                                   2 * KV_TAG_BUFFER_STEP - 3, 2 * KV_TAG_BUFFER_STEP - 2}) {
    tag_buffer buffer;
    const std::string text = "<" + std::string(length - 1, 'a') + ">";
    std::size_t position = 0;
    ASSERT_EQ(kvactivecontent_getNextTag(text.data(), text.size(), &position, &buffer.tag,
                                         &buffer.length, &buffer.size),
              1);
    EXPECT_EQ(buffer.length, length);
    EXPECT_EQ(buffer.size,
              (length + 2) / KV_TAG_BUFFER_STEP * KV_TAG_BUFFER_STEP + KV_TAG_BUFFER_STEP)
        << length;
    EXPECT_EQ(std::string(buffer.tag), text.substr(0, length));
  }
}

TEST(HtmlNextTagBuffer, FailsWithoutABuffer) {
  const trace_capture trace;
  char* tag = nullptr;
  std::size_t position = 0;
  std::size_t length = 0;
  std::size_t size = 0;
  EXPECT_EQ(kvactivecontent_getNextTag("<a>", 3, &position, &tag, &length, &size), -1);
  EXPECT_EQ(trace.count("ERROR", "Invalid address *tag = NULL"), 1);
}

TEST(HtmlNextTagBuffer, FreesTheBufferWhenItCannotGrow) {
  const trace_capture trace;
  char* tag = static_cast<char*>(std::malloc(4));
  std::size_t position = 0;
  std::size_t length = 0;
  std::size_t size = 4;
  EXPECT_EQ(kv_get_next_tag("<abcdef>", &position, &tag, &length, &size,
                            [](void*, std::size_t) -> void* { return nullptr; }),
            -1);
  EXPECT_EQ(tag, nullptr);
  EXPECT_EQ(trace.count("ERROR", "Reallocation of *tag failed"), 1);
}

TEST(HtmlNextTagBuffer, LogsTheTagShortened) {
  const trace_capture trace;
  s_tags("<a>" + ("<" + std::string(200, 'b')) + ">");
  EXPECT_EQ(trace.count("DEBUG", "found tag (shortened): <a"), 1);
  EXPECT_EQ(trace.count("found tag (shortened): <" + std::string(79, 'b')), 1);
  EXPECT_EQ(trace.count(std::string(80, 'b')), 0);
}

TEST(HtmlTagWalker, GivesTheSameAtEveryLevel) {
  std::string text;
  for (int i = 0; i < 500; ++i) {
    text += std::string(static_cast<std::size_t>(i % 97), i % 3 == 0 ? '\n' : ' ');
    text += i % 5 == 0 ? "<!-- <x> -->" : "<a b=\"c>\" \r\n d>";
  }
  std::vector<std::vector<std::size_t>> found;
  for (const kv_simd_level level : available_simd_levels()) {
    kv_tag_walker walker(text, level);
    found.emplace_back();
    for (kv_tag_extent tag; walker.next(tag);) {
      found.back().insert(found.back().end(), {tag.begin, tag.end});
    }
    EXPECT_EQ(found.back().size(), 800U);
    EXPECT_EQ(found.back(), found.front());
  }
}
