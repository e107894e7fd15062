#include "activecontent/pole.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "activecontent/pole_internal.h"
#include "support/cfb_reference.h"
#include "support/cfb_writer.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A storage over a copy of exactly the bytes, so that a read past them is noticed.
class reader {
 public:
  explicit reader(std::string_view bytes)
      : bytes_(bytes.begin(), bytes.end()), storage(bytes_.data(), bytes_.size()) {
    storage.open();
  }

 private:
  std::vector<std::uint8_t> bytes_;

 public:
  POLE::Storage storage;
};

POLE::Storage::Result s_result(const std::string& bytes) {
  return reader{bytes}.storage.result();
}

bool s_has(const std::string& bytes, std::string_view token) {
  const reader document{bytes};
  const std::string_view tokens[]{token};
  return document.storage.find_names("/", tokens) != 0;
}

const std::vector<cfb_node> kDocument{
    cfb_stream("WordDocument", std::string(5000, 'w')),
    cfb_stream("\x05SummaryInformation", "summary"),
    cfb_storage("ObjectPool", {cfb_storage("_123", {cfb_stream("\x01"
                                                               "CompObj",
                                                               "c")})}),
};

TEST(CompoundFile, ListsTheChildrenOfAStorage) {
  const reader document{make_cfb(kDocument).bytes};
  EXPECT_EQ(document.storage.result(), POLE::Storage::Ok);
  EXPECT_THAT(document.storage.entries("/"),
              ElementsAre("WordDocument", "SummaryInformation", "ObjectPool"));
  EXPECT_THAT(document.storage.entries("/ObjectPool"), ElementsAre("_123"));
  EXPECT_THAT(document.storage.entries("ObjectPool/_123/"), ElementsAre("CompObj"));
  EXPECT_THAT(document.storage.entries("/WordDocument"), IsEmpty());
  EXPECT_THAT(document.storage.entries("/nowhere"), IsEmpty());
}

TEST(CompoundFile, TellsStoragesFromStreams) {
  const reader document{make_cfb(kDocument).bytes};
  EXPECT_TRUE(document.storage.isDirectory("/"));
  EXPECT_TRUE(document.storage.isDirectory("/ObjectPool/_123"));
  EXPECT_FALSE(document.storage.isDirectory("/WordDocument"));
  EXPECT_FALSE(document.storage.isDirectory("/ObjectPool/nowhere"));
}

TEST(CompoundFile, ListsSiblingsInTreeOrder) {
  std::vector<cfb_node> many;
  std::vector<std::string> names;
  for (char c = 'a'; c <= 'z'; ++c) {
    names.emplace_back(3, c);
    many.push_back(cfb_stream(names.back()));
  }
  cfb_options balanced;
  balanced.balanced = true;
  const reader document{make_cfb(many, balanced).bytes};
  EXPECT_EQ(document.storage.entries("/"), names);
}

TEST(CompoundFile, NothingIsLoadedBeforeOpenAndAfterClose) {
  const std::string bytes = make_cfb(kDocument).bytes;
  POLE::Storage storage{reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
  EXPECT_EQ(storage.result(), POLE::Storage::OpenFailed);
  EXPECT_THAT(storage.entries("/"), IsEmpty());
  EXPECT_TRUE(storage.open());
  storage.close();
  EXPECT_EQ(storage.result(), POLE::Storage::OpenFailed);
  EXPECT_FALSE(storage.isDirectory("/"));
}

TEST(CompoundFile, StatusSaysHowFarLoadingGot) {
  std::string bytes = make_cfb(kDocument).bytes;
  EXPECT_EQ(s_result(""), POLE::Storage::NotOLE);
  EXPECT_EQ(s_result(std::string(2000, 'x')), POLE::Storage::NotOLE);
  EXPECT_EQ(s_result(bytes.substr(0, 8)), POLE::Storage::BadOLE);
  EXPECT_EQ(s_result(bytes.substr(0, 511)), POLE::Storage::BadOLE);
  bytes[7] = 'x';
  EXPECT_EQ(s_result(bytes), POLE::Storage::NotOLE);
}

struct header_case {
  const char* name;
  std::size_t offset;
  std::uint32_t value;
  bool wide;
  bool accepted;
};
class HeaderRule : public testing::TestWithParam<header_case> {};
TEST_P(HeaderRule, Holds) {
  cfb_image image = make_cfb(kDocument);
  const header_case& rule = GetParam();
  rule.wide ? image.put32(rule.offset, rule.value) : image.put16(rule.offset, rule.value);
  POLE::Header header = POLE::Header::decode(std::span<const std::uint8_t, POLE::kHeaderSize>{
      reinterpret_cast<const std::uint8_t*>(image.bytes.data()), POLE::kHeaderSize});
  EXPECT_EQ(header.valid(), rule.accepted);
  if (!rule.accepted) {
    EXPECT_EQ(s_result(image.bytes), POLE::Storage::BadOLE);
  }
}
INSTANTIATE_TEST_SUITE_P(CompoundFile, HeaderRule,
                         testing::Values(header_case{"threshold", 56, 4095, true, false},
                                         header_case{"threshold", 56, 4096, true, true},
                                         header_case{"threshold", 56, 4097, true, false},
                                         header_case{"no_table", 44, 0, true, false},
                                         header_case{"no_meta", 44, 110, true, false},
                                         header_case{"109", 44, 109, true, true},
                                         header_case{"needless_meta", 72, 1, true, false},
                                         header_case{"b_shift", 30, 6, false, false},
                                         header_case{"b_shift", 30, 7, false, true},
                                         header_case{"b_shift", 30, 30, false, true},
                                         header_case{"b_shift", 30, 31, false, false},
                                         header_case{"s_shift", 32, 9, false, true},
                                         header_case{"s_shift", 32, 10, false, false}));

TEST(CompoundFile, ExactlyAsManyTablesAsTheHeaderHoldsMayHaveMetaBlocks) {
  POLE::Header header{};
  header.threshold = 4096;
  header.b_shift = 9;
  header.s_shift = 6;
  const auto valid = [&](std::uint32_t tables, std::uint32_t metas) {
    header.num_bat = tables;
    header.num_mbat = metas;
    return header.valid();
  };
  EXPECT_TRUE(valid(109, 1));
  EXPECT_TRUE(valid(109, 0));
  EXPECT_FALSE(valid(108, 1));
  EXPECT_FALSE(valid(110, 0));
  EXPECT_TRUE(valid(109 + 127, 1));
  EXPECT_FALSE(valid(109 + 128, 1));
  EXPECT_TRUE(valid(0xFFFFFFFF, 0xFFFFFFFF));  // no 32-bit overflow
}

TEST(CompoundFile, NamesLoseAControlCharacterInFront) {
  cfb_image image = make_cfb({cfb_stream("a"), cfb_stream("b"), cfb_stream("c"), cfb_stream("d")});
  image.set_name(1,
                 "\x01"
                 "CompObj");
  image.set_name(2, "\x05SummaryInformation");
  image.set_name(3, "\x01\x02two");
  image.set_name(4, "\x1F");
  const reader document{image.bytes};
  EXPECT_THAT(document.storage.entries("/"),
              ElementsAre("CompObj", "SummaryInformation", "\x02two", ""));
}

TEST(CompoundFile, NamesHaveHalfTheirLengthFieldOfCharacters) {
  cfb_image image = make_cfb({cfb_stream("abcdef"), cfb_stream("ghi"), cfb_stream("x")});
  image.put16(image.entry_offset(1) + 64, 6);       // three of its characters
  image.put16(image.entry_offset(2) + 64, 0xFFFF);  // more than there is room for
  image.put16(image.entry_offset(3) + 64, 0);
  image.put16(image.entry_offset(1), 0x0441);  // the low byte of a character is kept
  const reader document{image.bytes};
  EXPECT_THAT(document.storage.entries("/"), ElementsAre("Abc", "ghi", ""));
}

TEST(CompoundFile, AnyTypeButStreamIsAStorage) {
  cfb_image image = make_cfb({cfb_storage("A", {cfb_stream("Macros")})});
  for (const int type : {0, 1, 3, 5, 255}) {
    image.set_type(1, static_cast<std::uint8_t>(type));
    EXPECT_TRUE(s_has(image.bytes, "Macros")) << type;
  }
  image.set_type(1, kCfbStream);
  EXPECT_FALSE(s_has(image.bytes, "Macros"));
}

TEST(CompoundFile, TheFirstEntryIsTheRootWhateverItsType) {
  cfb_image image = make_cfb({cfb_stream("Macros")});
  image.set_type(0, kCfbStream);
  const reader document{image.bytes};
  EXPECT_TRUE(document.storage.isDirectory("/"));
  EXPECT_THAT(document.storage.entries("/"), ElementsAre("Macros"));
}

TEST(CompoundFile, OfEqualNamesThePathMeansTheFirst) {
  const std::vector<cfb_node> two{cfb_storage("A", {cfb_stream("first")}),
                                  cfb_storage("A", {cfb_stream("Macros")})};
  EXPECT_FALSE(s_has(make_cfb(two).bytes, "Macros"));
  EXPECT_TRUE(s_has(make_cfb(two).bytes, "first"));
  const std::vector<cfb_node> behind_stream{cfb_stream("A"),
                                            cfb_storage("A", {cfb_stream("Macros")})};
  EXPECT_FALSE(s_has(make_cfb(behind_stream).bytes, "Macros"));
  // Among many siblings too, where names are sorted.
  std::vector<cfb_node> many;
  for (int i = 0; i < 100; ++i) {
    many.push_back(cfb_stream(std::to_string(i)));
  }
  many.push_back(cfb_storage("55", {cfb_stream("Macros")}));
  many.push_back(cfb_storage("S", {cfb_stream("found")}));
  EXPECT_FALSE(s_has(make_cfb(many).bytes, "Macros"));
  EXPECT_TRUE(s_has(make_cfb(many).bytes, "found"));
}

TEST(CompoundFile, EntriesWithoutAUsableNameAreListedButNotEntered) {
  for (const char* name : {"", "a/b", "/"}) {
    cfb_image image = make_cfb({cfb_storage("x", {cfb_stream("Macros")}), cfb_stream("y")});
    image.set_name(1, name);
    const reader document{image.bytes};
    EXPECT_THAT(document.storage.entries("/"), ElementsAre(name, "y"));
    EXPECT_FALSE(s_has(image.bytes, "Macros")) << name;
  }
  cfb_image image = make_cfb({cfb_stream("x")});
  image.set_name(1, "a/Macros");
  EXPECT_TRUE(s_has(image.bytes, "Macros"));
}

TEST(CompoundFile, LinksOutOfRangeAreIgnored) {
  cfb_image image = make_cfb({cfb_stream("a"), cfb_stream("b")});
  image.set_links(2, 0x80000000, 0x7FFFFFFF, 0xFFFFFFFE);
  EXPECT_EQ(s_result(image.bytes), POLE::Storage::Ok);
  EXPECT_THAT(reader{image.bytes}.storage.entries("/"), ElementsAre("a", "b"));
  image.set_links(2, 4, 400, 4);  // four entries fill the directory's block
  EXPECT_THAT(reader{image.bytes}.storage.entries("/"), ElementsAre("a", "b"));
}

TEST(CompoundFile, CyclesAmongSiblingsAndChildrenEnd) {
  cfb_image image = make_cfb({cfb_storage("a"), cfb_storage("b"), cfb_storage("c")});
  image.set_links(1, 3, 2, 1);
  image.set_links(2, 1, 3, 0);
  image.set_links(3, 2, 1, 2);
  const reader document{image.bytes};
  // c, found by the previous link of a, asks for b first.
  EXPECT_THAT(document.storage.entries("/"), ElementsAre("b", "c", "a"));
  EXPECT_FALSE(s_has(image.bytes, "Macros"));
  EXPECT_TRUE(s_has(image.bytes, "Root"));
}

TEST(CompoundFile, AChildListSharedByTwoParentsIsListedInBoth) {
  cfb_image image =
      make_cfb({cfb_storage("a", {cfb_storage("in", {cfb_stream("Macros")})}), cfb_storage("b")});
  image.set_link_child(4, 2);
  const reader document{image.bytes};
  EXPECT_THAT(document.storage.entries("/a"), ElementsAre("in"));
  EXPECT_THAT(document.storage.entries("/b"), ElementsAre("in"));
  EXPECT_THAT(document.storage.entries("/b/in"), ElementsAre("Macros"));
}

TEST(CompoundFile, FilesWithoutADirectoryEntryFailToLoad) {
  cfb_image image = make_cfb(kDocument);
  for (const std::uint32_t start : {kCfbNone, kCfbEndOfChain, 0x00FFFFFFu}) {
    image.put32(48, start);
    EXPECT_EQ(s_result(image.bytes), POLE::Storage::BadOLE) << start;
  }
}

TEST(CompoundFile, TheDirectoryChainEndsWhereItLoops) {
  std::vector<cfb_node> many;
  for (int i = 0; i < 30; ++i) {
    many.push_back(cfb_stream("n" + std::to_string(i)));
  }
  cfb_image image = make_cfb(many);
  ASSERT_EQ(image.directory_blocks.size(), 8U);
  image.put32(image.table_offset(image.directory_blocks[3]), image.directory_blocks[1]);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 15U);
  image.put32(image.table_offset(image.directory_blocks[0]), image.directory_blocks[0]);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 3U);
}

TEST(CompoundFile, ABlockOutsideTheBufferGivesNoBytesButLeadsOn) {
  std::vector<cfb_node> many;
  for (int i = 0; i < 11; ++i) {
    many.push_back(cfb_stream("n" + std::to_string(i)));
  }
  cfb_image image = make_cfb(many);
  const auto blocks = image.directory_blocks;
  // A number that the table knows, though the file is shorter.
  const std::uint32_t outside = 100;
  ASSERT_GE(image.block_offset(outside), image.bytes.size());
  image.put32(image.table_offset(blocks[0]), outside);
  image.put32(image.table_offset(outside), blocks[1]);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 11U);
}

TEST(CompoundFile, ATableBlockOutsideTheBufferShiftsNoLaterOne) {
  cfb_options options;
  options.b_shift = 7;  // 32 words a table block
  options.padding_blocks = 100;
  std::vector<cfb_node> many(40, cfb_stream("n"));
  many.push_back(cfb_stream("Macros"));
  cfb_image image = make_cfb(many, options);
  ASSERT_GE(image.table_blocks.size(), 4U);
  EXPECT_TRUE(s_has(image.bytes, "Macros"));
  image.put32(76 + 4 * 3, 0x00FFFFFF);  // about unused blocks
  EXPECT_TRUE(s_has(image.bytes, "Macros"));
  image.put32(76 + 4 * 1, 0x00FFFFFF);  // about the directory's second half
  EXPECT_EQ(s_result(image.bytes), POLE::Storage::Ok);
  EXPECT_FALSE(s_has(image.bytes, "Macros"));
}

TEST(CompoundFile, ABlockCutByTheEndGivesTheBytesThatAreThere) {
  std::vector<cfb_node> many(6, cfb_stream("n"));
  cfb_image image = make_cfb(many);
  // The directory's second block becomes the file's last one.
  const std::uint32_t last = image.table_blocks.back() + 1;
  const std::string second = image.bytes.substr(image.block_offset(image.directory_blocks[1]), 512);
  image.bytes += second;
  image.put32(image.table_offset(image.directory_blocks[0]), last);
  image.put32(image.table_offset(last), kCfbEndOfChain);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 6U);
  image.bytes.resize(image.bytes.size() - 512 + 255);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 4U);
  image.bytes.resize(image.bytes.size() - 255 + 256);
  EXPECT_EQ(reader{image.bytes}.storage.entries("/").size(), 5U);
}

TEST(CompoundFile, FurtherTableBlocksAreFoundThroughMetaBlocks) {
  cfb_options options;
  options.b_shift = 7;
  options.padding_blocks = 31 * 170;
  std::vector<cfb_node> many(5, cfb_stream("n"));
  cfb_image image = make_cfb({cfb_storage("S", many), cfb_stream("Macros")}, options);
  ASSERT_GE(image.meta_blocks.size(), 2U);
  // The directory's first block moves behind what the header's tables know.
  const std::uint32_t moved = 32 * 150;
  image.bytes.replace(image.block_offset(moved), 128,
                      image.bytes.substr(image.block_offset(image.directory_blocks[0]), 128));
  image.put32(48, moved);
  image.put32(image.table_offset(moved), image.directory_blocks[1]);
  EXPECT_TRUE(s_has(image.bytes, "Macros"));
  // A meta chain that loops ends; the numbers of the second block are gone.
  image.put32(image.block_offset(image.meta_blocks[0]) + 124, image.meta_blocks[0]);
  EXPECT_EQ(s_result(image.bytes), POLE::Storage::BadOLE);
}

TEST(CompoundFile, BigBlocksLieBehindOneBlockOfTheirSize) {
  cfb_options options;
  options.b_shift = 12;
  const reader document{make_cfb(kDocument, options).bytes};
  EXPECT_EQ(document.storage.entries("/").size(), 3U);
}

TEST(CompoundFile, DamagedSmallBlocksSpoilNothingElse) {
  cfb_image image = make_cfb(kDocument);
  image.put32(60, 0x12345678);
  image.put32(image.entry_offset(0) + 116, 0x12345678);
  EXPECT_EQ(s_result(image.bytes), POLE::Storage::Ok);
  const reader document{image.bytes};
  POLE::Stream small{document.storage, "/SummaryInformation"};
  std::uint8_t byte = 0;
  EXPECT_FALSE(small.fail());
  EXPECT_EQ(small.read(&byte, 1), 0U);
}

TEST(CompoundFile, DeepTreesAreWalkedWithoutRecursion) {
  constexpr std::size_t kDepth = 50000;
  cfb_image image = make_cfb(std::vector<cfb_node>(kDepth, cfb_storage("s")));
  for (std::size_t i = 0; i < kDepth; ++i) {
    image.set_links(i, kCfbNone, kCfbNone, static_cast<std::uint32_t>(i + 1));
  }
  image.set_name(kDepth, "Macros");
  EXPECT_TRUE(s_has(image.bytes, "Macros"));
}

TEST(CompoundFile, CutAtEveryOffsetItNeverReadsPastTheEnd) {
  const std::string bytes = make_cfb(kDocument).bytes;
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const reader document{std::string_view{bytes}.substr(0, length)};
    const cfb_reference reference{std::string_view{bytes}.substr(0, length)};
    ASSERT_EQ(document.storage.result() == POLE::Storage::Ok, reference.is_loaded()) << length;
    ASSERT_EQ(document.storage.entries("/"), reference.names("/")) << length;
  }
}

// Flips fields at random and compares with the plain reader.
TEST(CompoundFile, AgreesWithThePlainReaderOnDamagedFiles) {
  cfb_options options;
  options.b_shift = 7;
  std::vector<cfb_node> nodes;
  for (int i = 0; i < 12; ++i) {
    nodes.push_back(cfb_storage(std::string(1, static_cast<char>('a' + i % 5)),
                                {cfb_stream("x"), cfb_storage(i == 7 ? "Macros" : "b")}));
  }
  const cfb_image sound = make_cfb(nodes, options);
  std::uint32_t random = 12345;
  const auto next = [&random] { return random = random * 1664525 + 1013904223; };
  int found = 0;
  for (int round = 0; round < 800; ++round) {
    cfb_image image = sound;
    for (int change = 0; change < 6; ++change) {
      const std::size_t entry = next() / 7 % 37;
      const std::size_t field = 68 + 4 * (next() / 5 % 3);
      image.put32(image.entry_offset(entry) + field, next() / 3 % 40);
    }
    if (round % 3 == 0) {
      image.put32(image.table_offset(next() / 11 % 60), next() / 13 % 70);
    }
    const cfb_reference reference{image.bytes};
    const reader document{image.bytes};
    ASSERT_EQ(document.storage.entries("/"), reference.names("/")) << round;
    ASSERT_EQ(s_has(image.bytes, "Macros"), reference.has_token("Macros")) << round;
    found += reference.has_token("Macros") ? 1 : 0;
  }
  EXPECT_GT(found, 20);  // both outcomes occur
  EXPECT_LT(found, 780);
}

std::string s_read_all(POLE::Stream& stream, std::size_t step) {
  std::string all;
  std::vector<std::uint8_t> buffer(step);
  for (std::size_t got = 1; got != 0;) {
    got = stream.read(buffer.data(), buffer.size());
    all.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(got));
  }
  return all;
}

std::string s_pattern(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    text[i] = static_cast<char>(i * 7 + i / 251);
  }
  return text;
}

class StreamSize : public testing::TestWithParam<std::size_t> {};
TEST_P(StreamSize, IsReadWhole) {
  const std::string data = s_pattern(GetParam());
  const reader document{make_cfb({cfb_stream("before", "x"), cfb_stream("S", data)}).bytes};
  for (const std::size_t step : {std::size_t{1}, std::size_t{100}, std::size_t{100000}}) {
    POLE::Stream stream{document.storage, "/S"};
    ASSERT_FALSE(stream.fail());
    EXPECT_EQ(stream.size(), data.size());
    EXPECT_EQ(s_read_all(stream, step), data);
    EXPECT_TRUE(stream.eof());
  }
}
INSTANTIATE_TEST_SUITE_P(CompoundFile, StreamSize,
                         testing::Values(0, 1, 63, 64, 65, 4095, 4096, 4097, 20000));

TEST(CompoundFile, StreamsAreReadFromAnyPlace) {
  const std::string data = s_pattern(6000);
  const reader document{make_cfb({cfb_stream("S", data)}).bytes};
  POLE::Stream stream{document.storage, "/S"};
  stream.seek(5000);
  EXPECT_EQ(stream.tell(), 5000U);
  EXPECT_EQ(stream.getch(), static_cast<std::uint8_t>(data[5000]));
  EXPECT_EQ(stream.tell(), 5001U);
  stream.seek(10);
  EXPECT_EQ(stream.getch(), static_cast<std::uint8_t>(data[10]));
  stream.seek(6000);
  EXPECT_EQ(stream.getch(), -1);
  stream.seek(std::uint64_t{1} << 60);
  EXPECT_EQ(stream.getch(), -1);
  EXPECT_EQ(stream.fullName(), "/S");
}

TEST(CompoundFile, StreamsThatAreNoneFail) {
  const reader document{make_cfb(kDocument).bytes};
  EXPECT_TRUE(POLE::Stream(document.storage, "/nowhere").fail());
  EXPECT_TRUE(POLE::Stream(document.storage, "/ObjectPool").fail());
  const reader damaged{std::string(600, 'x')};
  EXPECT_TRUE(POLE::Stream(damaged.storage, "/").fail());
}

TEST(CompoundFile, AStreamWithALyingSizeGivesWhatIsThere) {
  cfb_image image = make_cfb({cfb_stream("S", s_pattern(5000))});
  image.put32(image.entry_offset(1) + 120, 0xFFFFFFFF);
  const reader document{image.bytes};
  POLE::Stream stream{document.storage, "/S"};
  EXPECT_EQ(s_read_all(stream, 4096).size(), 10 * 512U);
}

}  // namespace
