#include "common/kv_config_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "common/kv_time.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

std::string value_of(const char* text, const char* section, const char* key) {
  const ini_ptr ini{ini_parse(text)};
  const char* const value = ini_get(ini.get(), section, key);
  return value == nullptr ? "(none)" : value;
}

TEST(IniFile, SyntaxRowByRow) {
  struct {
    const char* text;
    const char* section;
    const char* key;
    const char* value;
  } const rows[] = {
      {"", nullptr, "k", "(none)"},
      {"k=v", "", "k", "v"},
      {"k=v\n", "", "K", "v"},
      {"k = v\r\n", "", "k", "v"},
      {"\tk\t=\t v w \t\r\n", "", "k", "v w"},
      {"[S]\nk=v", "s", "k", "v"},
      {"[S]\nk=v", "", "k", "(none)"},
      {"[S]\nk=v", nullptr, "k", "v"},
      {"[S\nk=v", "S", "k", "v"},
      {"[S] rest\nk=v", "S", "k", "v"},
      {"[]\nk=v", "", "k", "v"},
      {"[a]\nk=1\n[b]\nk=2", "b", "k", "2"},
      {"[a]\nk=1\n[b]\nk=2", nullptr, "k", "1"},
      {"[a]\nk=1\n[A]\nk=2", "a", "k", "1"},
      {"; k=v", "", "k", "(none)"},
      {"k=v ; comment", "", "k", "v"},
      {"k ; =v", "", "k", "(none)"},
      {"k=", "", "k", "(none)"},
      {"k=   \r", "", "k", "(none)"},
      {"k=;v", "", "k", "(none)"},
      {"k=\"\"", "", "k", "(none)"},
      {"k", "", "k", "(none)"},
      {"=v", "", "", "(none)"},
      {"k=a=b", "", "k", "a=b"},
      {"k=\" v \"", "", "k", " v "},
      {"k=\"a;b\" ; c", "", "k", "a;b"},
      {"k=\"a\" b", "", "k", "a"},
      {"k=\"a\nl=b", "", "k", "a"},
      {"k=\"a\nl=b", "", "l", "b"},
      {"k=\"a\rb\"", "", "k", "a"},
      {R"(k="a\r\t\n\"\\\x")", "", "k", "a\r\t\n\"\\x"},
      {"k=\"a\\\nl=b", "", "k", "a\\"},
      {"k=1\nk=2", "", "k", "1"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(value_of(row.text, row.section, row.key), row.value) << row.text;
  }
}

TEST(IniFile, LoadsAFileAndRefusesWhatIsNone) {
  const temp_dir folder;
  write_whole_file(folder.file("a.ini"), "[s]\nk=v\n");
  const ini_ptr ini{ini_load(folder.file("a.ini").c_str())};
  ASSERT_NE(ini, nullptr);
  EXPECT_STREQ(ini_get(ini.get(), "s", "k"), "v");
  EXPECT_EQ(ini_load(folder.file("missing").c_str()), nullptr);
  EXPECT_EQ(ini_load(folder.path().c_str()), nullptr);
  EXPECT_EQ(ini_load(nullptr), nullptr);
}

TEST(IniFile, FreeClearsTheHandleAndTakesNull) {
  ini_t* ini = ini_parse("k=v");
  ini_free(&ini);
  EXPECT_EQ(ini, nullptr);
  ini_free(&ini);
  ini_free(nullptr);
  EXPECT_EQ(ini_get(nullptr, "", "k"), nullptr);
}

TEST(IniFile, ManyEntriesOfALongSectionStaySmall) {
  std::string text = "[" + std::string(100000, 's') + "]\n";
  for (int i = 0; i < 100000; ++i) {
    text += "k=v\n";
  }
  const ini_ptr ini{ini_parse(text)};  // a copy of the name per entry would be 10 GB
  ASSERT_NE(ini, nullptr);
  EXPECT_STREQ(ini_get(ini.get(), nullptr, "k"), "v");
}

TEST(IniFile, SgetScansOrHandsOutThePointer) {
  const ini_ptr ini{ini_parse("[s]\nn=12\nt=abc")};
  int number = 0;
  const char* text = nullptr;
  EXPECT_EQ(ini_sget(ini.get(), "s", "n", "%d", &number), 1);
  EXPECT_EQ(number, 12);
  EXPECT_EQ(ini_sget(ini.get(), "s", "t", nullptr, &text), 1);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(ini_sget(ini.get(), "s", "t", "%d", &number), 1) << "the key exists";
  EXPECT_EQ(ini_sget(ini.get(), "s", "missing", "%d", &number), 0);
}

TEST(IniFile, TypedGettersReadOneValueAndLogIt) {
  const ini_ptr ini{ini_parse("[s]\nn=-12\nl=9000000000\nt=two words")};
  const trace_capture trace;
  char text[16];
  std::int32_t number = 0;
  std::int64_t big = 0;
  EXPECT_EQ(GetStringFromConfigFile(ini.get(), "s", "t", text, sizeof text), 1);
  EXPECT_STREQ(text, "two");
  EXPECT_EQ(GetIntFromConfigFile(ini.get(), "s", "n", &number), 1);
  EXPECT_EQ(number, -12);
  EXPECT_EQ(GetLongFromConfigFile(ini.get(), "s", "l", &big), 1);
  EXPECT_EQ(big, 9000000000);
  EXPECT_EQ(trace.count("TRACE", "Read \"two\" for [s] - t"), 1);
  EXPECT_EQ(trace.count("TRACE", "Read \"-12\" for [s] - n"), 1);
  EXPECT_EQ(trace.count("TRACE", "Read \"9000000000\" for [s] - l"), 1);
}

TEST(IniFile, TypedGettersTellAMissingKeyFromAValueThatCannotBeScanned) {
  const ini_ptr ini{ini_parse("[s]\nt=abc")};
  const trace_capture trace;
  std::int32_t number = 7;
  EXPECT_EQ(GetIntFromConfigFile(ini.get(), "s", "missing", &number), 0);
  EXPECT_EQ(trace.lines().size(), 0U);
  EXPECT_EQ(GetIntFromConfigFile(ini.get(), "s", "t", &number), 0);
  EXPECT_EQ(number, 7);
  EXPECT_EQ(trace.count("TRACE", "Parameter [s] - t not found "), 1);
}

TEST(IniFile, StringGetterClearsTheBufferAndStaysInsideIt) {
  const ini_ptr ini{ini_parse("t=abcdefgh")};
  char text[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(GetStringFromConfigFile(ini.get(), "", "missing", text, 4), 0);
  EXPECT_EQ(std::string(text, 6), std::string("\0\0\0\0xx", 6));
  EXPECT_EQ(GetStringFromConfigFile(ini.get(), "", "t", text, 4), 1);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(text[4], 'x');
}

TEST(IniFile, NamesCompareWithoutCase) {
  EXPECT_EQ(strcmpci("AbC", "aBc"), 0);
  EXPECT_LT(strcmpci("ab", "ABC"), 0);
  EXPECT_GT(strcmpci("b", "A"), 0);
  EXPECT_EQ(strcmpci("", ""), 0);
}

kv_config_parameter_t* parameter(const char* name, const char* value) {
  auto* const record =
      static_cast<kv_config_parameter_t*>(std::calloc(1, sizeof(kv_config_parameter_t)));
  record->name = strdup(name);
  record->value = strdup(value);
  return record;
}

TEST(ConfigList, FreesItsRecords) {  // the leak checker is the judge of the records
  list_t list{};
  ASSERT_EQ(list_init(&list), 0);
  ASSERT_EQ(list_append(&list, parameter("a", "1")), 0);
  ASSERT_EQ(list_append(&list, parameter("b", "2")), 0);
  EXPECT_EQ(kv_config_free_list(&list), 0);
  EXPECT_EQ(list.state, nullptr);
}

TEST(ConfigList, NullListIsLogged) {
  const trace_capture trace;
  EXPECT_EQ(kv_config_free_list(nullptr), -1);
  EXPECT_EQ(trace.count("ERROR", "NULL pointer received config=(nil)"), 1);
}

TEST(ConfigList, WaitsHalfASecondForAnActiveIterator) {
  list_t list{};
  ASSERT_EQ(list_init(&list), 0);
  ASSERT_EQ(list_iterator_start(&list), 0);
  const std::uint64_t start = kv_current_time_ms();
  EXPECT_EQ(kv_config_free_list(&list), -1);
  EXPECT_GE(kv_elapsed_time_ms(start), 500U);
  std::thread other([&list] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    list_iterator_stop(&list);
  });
  EXPECT_EQ(kv_config_free_list(&list), 0);
  other.join();
}

}  // namespace
