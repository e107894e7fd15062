#include "common/simclist.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A list of numbers that stores copies.
class NumberList : public testing::Test {
 protected:
  NumberList() {
    EXPECT_EQ(list_init(&list_), 0);
    make_number_list(list_);
  }
  ~NumberList() override { list_destroy(&list_); }

  static void make_number_list(list_t& list) {
    EXPECT_EQ(list_attributes_copy(&list, list_meter_int32_t, 1), 0);
    EXPECT_EQ(list_attributes_comparator(&list, list_comparator_int32_t), 0);
    EXPECT_EQ(list_attributes_hash_computer(&list, list_hashcomputer_int32_t), 0);
  }
  void fill(const std::vector<int>& numbers) {
    for (const int number : numbers) {
      ASSERT_EQ(list_append(&list_, &number), 0);
    }
  }
  static int value(const void* element) { return *static_cast<const int*>(element); }
  static std::vector<int> values(const list_t& list) {
    std::vector<int> result;
    for (std::size_t i = 0; i < list_size(&list); ++i) {
      result.push_back(value(list_get_at(&list, i)));
    }
    return result;
  }
  [[nodiscard]] std::vector<int> values() const { return values(list_); }

  list_t list_{};
};

TEST_F(NumberList, AppendsPrependsAndInserts) {
  const int one = 1;
  const int two = 2;
  const int three = 3;
  EXPECT_EQ(list_empty(&list_), 1);
  EXPECT_EQ(list_append(&list_, &three), 0);
  EXPECT_EQ(list_prepend(&list_, &one), 0);
  EXPECT_EQ(list_insert_at(&list_, &two, 1), 0);
  EXPECT_THAT(values(), ElementsAre(1, 2, 3));
  EXPECT_EQ(list_insert_at(&list_, &two, 4), -1);
  EXPECT_EQ(list_size(&list_), 3U);
  EXPECT_EQ(list_get_at(&list_, 3), nullptr);
}

TEST_F(NumberList, ExtractedCopiesBelongToTheCaller) {
  fill({1, 2, 3});
  void* first = list_fetch(&list_);
  void* last = list_extract_at(&list_, 1);
  EXPECT_EQ(value(first), 1);
  EXPECT_EQ(value(last), 3);
  std::free(first);
  std::free(last);
  EXPECT_THAT(values(), ElementsAre(2));
  EXPECT_EQ(list_extract_at(&list_, 1), nullptr);
}

TEST_F(NumberList, DeletesByValuePositionAndRange) {
  fill({1, 2, 3, 2, 4, 5});
  const int two = 2;
  const int nine = 9;
  EXPECT_EQ(list_delete(&list_, &two), 0);
  EXPECT_THAT(values(), ElementsAre(1, 3, 2, 4, 5));
  EXPECT_EQ(list_delete(&list_, &nine), -1);
  EXPECT_EQ(list_delete_at(&list_, 0), 0);
  EXPECT_EQ(list_delete_at(&list_, 4), -1);
  EXPECT_EQ(list_delete_range(&list_, 1, 2), 0);
  EXPECT_THAT(values(), ElementsAre(3, 5));
  EXPECT_EQ(list_delete_range(&list_, 1, 0), -1);
  EXPECT_EQ(list_delete_range(&list_, 0, 2), -1);
  EXPECT_EQ(list_clear(&list_), 0);
  EXPECT_EQ(list_empty(&list_), 1);
}

TEST_F(NumberList, FindsLargestSmallestAndPositions) {
  EXPECT_EQ(list_get_max(&list_), nullptr);
  fill({4, 9, 2, 9});
  const int nine = 9;
  const int five = 5;
  EXPECT_EQ(value(list_get_max(&list_)), 9);
  EXPECT_EQ(value(list_get_min(&list_)), 2);
  EXPECT_EQ(list_locate(&list_, &nine), 1);
  EXPECT_EQ(list_locate(&list_, &five), -1);
  EXPECT_EQ(list_contains(&list_, &nine), 1);
  EXPECT_EQ(list_contains(&list_, &five), 0);
}

TEST_F(NumberList, SortsBothWays) {
  fill({3, 1, 2});
  EXPECT_EQ(list_sort(&list_, 1), 0);
  EXPECT_THAT(values(), ElementsAre(1, 2, 3));
  EXPECT_EQ(list_sort(&list_, -1), 0);
  EXPECT_THAT(values(), ElementsAre(3, 2, 1));
  EXPECT_EQ(list_sort(&list_, 0), -1);
  EXPECT_EQ(list_attributes_comparator(&list_, nullptr), 0);
  EXPECT_EQ(list_sort(&list_, 1), -1);
}

TEST_F(NumberList, SeeksByAnIndicator) {
  fill({1, 22, 333});
  const std::size_t digits = 3;
  EXPECT_EQ(list_seek(&list_, &digits), nullptr) << "no seeker";
  list_attributes_seeker(&list_, [](const void* element, const void* indicator) {
    const std::size_t length = std::to_string(*static_cast<const int*>(element)).size();
    return length == *static_cast<const std::size_t*>(indicator) ? 1 : 0;
  });
  EXPECT_EQ(value(list_seek(&list_, &digits)), 333);
  const std::size_t none = 9;
  EXPECT_EQ(list_seek(&list_, &none), nullptr);
}

TEST_F(NumberList, HashFollowsContentAndOrder) {
  fill({1, 2});
  list_hash_t first = 0;
  list_hash_t again = 0;
  EXPECT_EQ(list_hash(&list_, &first), 0);
  EXPECT_EQ(list_hash(&list_, &again), 0);
  EXPECT_EQ(first, again);
  ASSERT_EQ(list_sort(&list_, -1), 0);
  EXPECT_EQ(list_hash(&list_, &again), 0);
  EXPECT_NE(first, again);
}

TEST_F(NumberList, ConcatenatesCopies) {
  fill({1, 2});
  list_t other{};
  ASSERT_EQ(list_init(&other), 0);
  make_number_list(other);
  const int three = 3;
  ASSERT_EQ(list_append(&other, &three), 0);
  list_t both{};
  EXPECT_EQ(list_concat(&list_, &other, &both), 0);
  EXPECT_THAT(values(both), ElementsAre(1, 2, 3));
  EXPECT_NE(list_get_at(&both, 0), list_get_at(&list_, 0));
  EXPECT_EQ(list_concat(&list_, &other, &list_), -1);
  list_destroy(&both);
  list_destroy(&other);
}

TEST_F(NumberList, IteratesOnceAtATimeAndRefusesChangesMeanwhile) {
  fill({1, 2});
  const int three = 3;
  EXPECT_EQ(list_iterator_hasnext(&list_), 0);
  EXPECT_EQ(list_iterator_start(&list_), 0);
  EXPECT_EQ(list_iterator_start(&list_), -1);
  EXPECT_EQ(list_append(&list_, &three), -1);
  EXPECT_EQ(list_clear(&list_), -1);
  EXPECT_EQ(list_fetch(&list_), nullptr);
  EXPECT_EQ(list_delete(&list_, &three), -1);
  EXPECT_EQ(value(list_iterator_next(&list_)), 1);
  EXPECT_EQ(value(list_iterator_next(&list_)), 2);
  EXPECT_EQ(list_iterator_hasnext(&list_), 0);
  EXPECT_EQ(list_iterator_next(&list_), nullptr);
  EXPECT_EQ(list_iterator_stop(&list_), 0);
  EXPECT_EQ(list_iterator_stop(&list_), -1);
  EXPECT_EQ(list_append(&list_, &three), 0);
}

TEST_F(NumberList, CopyingIsChangedWhileEmptyOnly) {
  fill({1});
  EXPECT_EQ(list_attributes_copy(&list_, nullptr, 0), -1);
  list_clear(&list_);
  EXPECT_EQ(list_attributes_copy(&list_, nullptr, 1), -1);
  EXPECT_EQ(list_attributes_copy(&list_, nullptr, 0), 0);
}

TEST(List, BorrowsElementsByDefaultAndComparesPointers) {
  list_t list{};
  ASSERT_EQ(list_init(&list), 0);
  int a = 1;
  int b = 1;
  ASSERT_EQ(list_append(&list, &a), 0);
  EXPECT_EQ(list_get_at(&list, 0), &a);
  EXPECT_EQ(list_contains(&list, &b), 0);
  EXPECT_EQ(list_delete(&list, &a), 0);
  list_destroy(&list);
  EXPECT_EQ(list_size(&list), 0U);
  EXPECT_EQ(list_append(&list, &a), -1) << "destroyed";
  EXPECT_EQ(list_init(nullptr), -1);
}

TEST(List, TypedFamiliesCompareMeasureAndHash) {
  const std::int8_t low = -128;
  const std::int8_t high = 127;
  EXPECT_LT(list_comparator_int8_t(&low, &high), 0);
  const std::uint64_t huge = UINT64_MAX;
  const std::uint64_t zero = 0;
  EXPECT_GT(list_comparator_uint64_t(&huge, &zero), 0);
  const double half = 0.5;
  EXPECT_EQ(list_comparator_double(&half, &half), 0);
  const float minus_zero = -0.0F;
  const float plus_zero = 0.0F;
  EXPECT_EQ(list_comparator_float(&minus_zero, &plus_zero), 0);
  EXPECT_EQ(list_hashcomputer_float(&minus_zero), list_hashcomputer_float(&plus_zero));
  EXPECT_LT(list_comparator_string("abc", "abd"), 0);
  EXPECT_EQ(list_meter_string("abc"), 4U);
  EXPECT_EQ(list_meter_int16_t(&low), 2U);
  EXPECT_EQ(list_meter_double(&half), 8U);
  EXPECT_EQ(list_hashcomputer_string("abc"), list_hashcomputer_string("abc"));
  EXPECT_NE(list_hashcomputer_string("abc"), list_hashcomputer_string("abd"));
}

class ListDump : public NumberList {
 protected:
  [[nodiscard]] std::string path() const { return folder_.file("dump"); }
  temp_dir folder_;
};

TEST_F(ListDump, RestoresWhatWasDumped) {
  fill({7, 8, 9});
  ASSERT_EQ(list_dump_file(&list_, path().c_str()), 0);
  list_dump_info_t info{};
  ASSERT_EQ(list_dump_getinfo_file(path().c_str(), &info), 0);
  EXPECT_EQ(info.count, 3U);
  EXPECT_EQ(info.size, read_whole_file(path()).size());
  EXPECT_EQ(info.complete, 1);
  EXPECT_GT(info.timestamp, 1700000000U);
  EXPECT_EQ(list_restore_file(&list_, path().c_str()), 0);
  EXPECT_THAT(values(), ElementsAre(7, 8, 9, 7, 8, 9));
}

TEST_F(ListDump, HasTheDocumentedBytes) {
  fill({258});
  ASSERT_EQ(list_dump_file(&list_, path().c_str()), 0);
  const std::string text = read_whole_file(path());
  EXPECT_EQ(text.substr(0, 8), "KVLIST01");
  EXPECT_EQ(text.substr(16),
            std::string("\1\0\0\0\0\0\0\0\10\0\0\0\0\0\0\0\4\0\0\0\2\1\0\0", 24) + "KVLISTEND");
}

TEST_F(ListDump, EmptyListRoundTrips) {
  ASSERT_EQ(list_dump_file(&list_, path().c_str()), 0);
  EXPECT_EQ(list_restore_file(&list_, path().c_str()), 0);
  EXPECT_THAT(values(), IsEmpty());
}

TEST_F(ListDump, CutOrChangedAtAnyByteAddsNothing) {
  fill({7, 8});
  ASSERT_EQ(list_dump_file(&list_, path().c_str()), 0);
  list_clear(&list_);
  const std::string text = read_whole_file(path());
  for (std::size_t length = 0; length < text.size(); ++length) {
    write_whole_file(path(), text.substr(0, length));
    EXPECT_EQ(list_restore_file(&list_, path().c_str()), -1) << length;
    list_dump_info_t info{.timestamp = 0, .count = 0, .size = 0, .complete = 1};
    EXPECT_TRUE(list_dump_getinfo_file(path().c_str(), &info) == -1 || info.complete == 0);
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::string changed = text;
    changed[i] = static_cast<char>(changed[i] ^ 0x80);
    write_whole_file(path(), changed);
    if (list_restore_file(&list_, path().c_str()) == 0) {
      EXPECT_EQ(list_size(&list_), 2U) << i;  // a changed time or number is none of its business
      list_clear(&list_);
    }
  }
  EXPECT_EQ(list_size(&list_), 0U);
}

TEST_F(ListDump, SerializersTakePrecedence) {
  list_attributes_serializer(&list_, [](const void* element, std::uint32_t* length) -> void* {
    const std::string text = std::to_string(*static_cast<const int*>(element));
    *length = static_cast<std::uint32_t>(text.size());
    return strdup(text.c_str());
  });
  list_attributes_unserializer(&list_, [](const void* bytes, std::uint32_t* length) -> void* {
    auto* const number = static_cast<int*>(std::malloc(sizeof(int)));
    *number = std::stoi(std::string(static_cast<const char*>(bytes), *length));
    return number;
  });
  fill({12345});
  ASSERT_EQ(list_dump_file(&list_, path().c_str()), 0);
  EXPECT_NE(read_whole_file(path()).find("12345"), std::string::npos);
  EXPECT_EQ(list_restore_file(&list_, path().c_str()), 0);
  EXPECT_THAT(values(), ElementsAre(12345, 12345));
}

TEST_F(ListDump, FilesAndListsThatCannotBeUsedAreRefused) {
  const std::string missing = folder_.file("no/such");
  EXPECT_EQ(list_dump_file(&list_, missing.c_str()), -1);
  EXPECT_EQ(list_restore_file(&list_, missing.c_str()), -1);
  EXPECT_EQ(list_dump_filedescriptor(nullptr, 1), -1);
  EXPECT_EQ(list_dump_getinfo_filedescriptor(-1, nullptr), -1);
  list_t borrowing{};
  ASSERT_EQ(list_init(&borrowing), 0);
  ASSERT_EQ(list_dump_file(&borrowing, path().c_str()), 0);
  EXPECT_EQ(list_restore_file(&borrowing, path().c_str()), -1) << "nobody would free the copies";
  int number = 1;
  ASSERT_EQ(list_append(&borrowing, &number), 0);
  EXPECT_EQ(list_dump_file(&borrowing, path().c_str()), -1) << "no size of an element is known";
  list_destroy(&borrowing);
}

TEST_F(ListDump, DescriptorsAreUsedFromTheirPosition) {
  fill({5});
  const int descriptor = open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(descriptor, 0);
  ASSERT_EQ(write(descriptor, "xyz", 3), 3);
  EXPECT_EQ(list_dump_filedescriptor(&list_, descriptor), 0);
  list_dump_info_t info{};
  lseek(descriptor, 3, SEEK_SET);
  EXPECT_EQ(list_dump_getinfo_filedescriptor(descriptor, &info), 0);
  EXPECT_EQ(info.count, 1U);
  lseek(descriptor, 3, SEEK_SET);
  EXPECT_EQ(list_restore_filedescriptor(&list_, descriptor), 0);
  EXPECT_THAT(values(), ElementsAre(5, 5));
  close(descriptor);
}

}  // namespace
