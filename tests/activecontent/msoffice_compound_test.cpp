#include <gtest/gtest.h>

#include "activecontent/kvactivecontent_detectors.h"
#include "activecontent/kvactivecontent_msoffice.h"
#include "support/cfb_writer.h"
#include "support/job_builder.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kOleReason = "\"OLE object\" detected in MS-Office document";
constexpr const char* kMacroReason = "\"Macro\" detected in MS-Office document";

const std::vector<cfb_node> kWithMacros{
    cfb_stream("WordDocument"), cfb_storage("Macros", {cfb_storage("VBA", {cfb_stream("dir")})})};
const std::vector<cfb_node> kWithBoth{cfb_storage("Macros", {cfb_stream("x")}),
                                      cfb_storage("ObjectPool", {cfb_stream("y")})};

struct outcome {
  std::int32_t code;
  std::string reason;
  bool operator==(const outcome&) const = default;
};

outcome s_scan(const std::string& bytes, std::initializer_list<kv_ac_slot> on) {
  const kv_scanobject_ptr job = make_job(bytes, on, "", "", "", "letter.doc");
  char reason[KV_REASON_SIZE]{};
  const std::int32_t code = kvactivecontent_msoffice_CDFv2(job.get(), reason);
  return {code, reason};
}

const std::uint8_t* s_bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

TEST(CompoundDocument, MacrosAreFound) {
  EXPECT_EQ(s_scan(make_cfb(kWithMacros).bytes, {KV_AC_MSOFFICE_MACRO}),
            (outcome{-202, kMacroReason}));
}

TEST(CompoundDocument, ObjectsAreTestedBeforeMacros) {
  const std::string bytes = make_cfb(kWithBoth).bytes;
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE}), (outcome{-202, kOleReason}));
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO}), (outcome{-202, kMacroReason}));
  EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_OLE}), (outcome{-202, kOleReason}));
}

TEST(CompoundDocument, EachSwitchLooksForItsOwnNameOnly) {
  EXPECT_EQ(s_scan(make_cfb(kWithMacros).bytes, {KV_AC_MSOFFICE_OLE}), (outcome{0, ""}));
  EXPECT_EQ(s_scan(make_cfb({cfb_storage("ObjectPool")}).bytes, {KV_AC_MSOFFICE_MACRO}),
            (outcome{0, ""}));
  EXPECT_EQ(s_scan(make_cfb(kWithMacros).bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE}),
            (outcome{-202, kMacroReason}));
  EXPECT_EQ(s_scan(make_cfb(kWithBoth).bytes, {}), (outcome{0, ""}));
}

TEST(CompoundDocument, SignedMacrosDdeAndJavaChangeNothing) {
  EXPECT_EQ(s_scan(make_cfb(kWithMacros).bytes,
                   {KV_AC_MSOFFICE_MACRO_SIGNED, KV_AC_MSOFFICE_DDE, KV_AC_MSOFFICE_JAVA}),
            (outcome{0, ""}));
}

TEST(CompoundDocument, AMacroProjectOfAnotherNameIsNotReported) {
  const std::string workbook =
      make_cfb({cfb_stream("Workbook"), cfb_storage("_VBA_PROJECT_CUR", {cfb_stream("dir")})})
          .bytes;
  EXPECT_EQ(s_scan(workbook, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE}), (outcome{0, ""}));
}

TEST(CompoundDocument, NamesCountAnywhereAndAsPartsWithRegardToCase) {
  const auto has_macros = [](const char* name) {
    return s_scan(make_cfb({cfb_storage("a", {cfb_storage("b", {cfb_stream(name)})})}).bytes,
                  {KV_AC_MSOFFICE_MACRO})
               .code == -202;
  };
  EXPECT_TRUE(has_macros("MyMacros2"));
  EXPECT_TRUE(has_macros("\x03Macros"));
  EXPECT_FALSE(has_macros("macros"));
  EXPECT_FALSE(has_macros("Macro"));
}

TEST(CompoundDocument, WhatCannotBeReadIsReported) {
  cfb_image damaged = make_cfb(kWithMacros);
  damaged.put32(56, 4095);
  for (const std::string& bytes : {std::string{}, std::string{"x"}, std::string(5000, 'x'),
                                   make_cfb(kWithMacros).bytes.substr(0, 500), damaged.bytes}) {
    EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_OLE}), (outcome{-100, ""})) << bytes.size();
    EXPECT_EQ(s_scan(bytes, {KV_AC_MSOFFICE_MACRO}), (outcome{-100, ""})) << bytes.size();
    EXPECT_EQ(s_scan(bytes, {}), (outcome{0, ""})) << bytes.size();
  }
}

TEST(CompoundDocument, InnerFunctionsTellTheirAnswersApart) {
  const std::string both = make_cfb(kWithBoth).bytes;
  const std::string none = make_cfb({cfb_stream("Workbook")}).bytes;
  const std::string text(600, 'x');
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_OLE(s_bytes(both), both.size()), 1);
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_macro(s_bytes(both), both.size()), 1);
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_OLE(s_bytes(none), none.size()), 0);
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_macro(s_bytes(none), none.size()), 0);
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_OLE(s_bytes(text), text.size()), -2);
  EXPECT_EQ(kvactivecontent_check_CDFv2_for_macro(s_bytes(text), text.size()), -2);
  EXPECT_EQ(kvactivecontent_find_in_doc(s_bytes(none), none.size(), "book"), 1);
  EXPECT_EQ(kvactivecontent_find_in_doc(s_bytes(none), none.size(), "nook"), 0);
}

TEST(CompoundDocument, TheSearchBeginsAtThePath) {
  const std::string bytes =
      make_cfb({cfb_storage("a", {cfb_stream("Macros")}), cfb_storage("b", {cfb_stream("x")})})
          .bytes;
  POLE::Storage storage{s_bytes(bytes), bytes.size()};
  ASSERT_TRUE(storage.open());
  EXPECT_EQ(hasToken(0, storage, "/", "Macros"), 1);
  EXPECT_EQ(hasToken(1, storage, "/a/", "Macros"), 1);
  EXPECT_EQ(hasToken(1, storage, "/b/", "Macros"), 0);
  EXPECT_EQ(hasToken(1, storage, "/c/", "Macros"), 0);
}

TEST(CompoundDocument, LogsWhatItFinds) {
  const trace_capture trace;
  static_cast<void>(
      s_scan(make_cfb(kWithMacros).bytes, {KV_AC_MSOFFICE_MACRO, KV_AC_MSOFFICE_OLE}));
  EXPECT_EQ(trace.count("Checking for OLE"), 1);
  EXPECT_EQ(trace.count("No OLE found"), 1);
  EXPECT_EQ(trace.count("Checking for macros"), 1);
  EXPECT_EQ(trace.count("Macro found in letter.doc "), 1);
  EXPECT_EQ(trace.count("WARN", kMacroReason), 1);
}

TEST(CompoundDocument, LogsObjectsAndTheirAbsence) {
  const trace_capture trace;
  static_cast<void>(s_scan(make_cfb(kWithBoth).bytes, {KV_AC_MSOFFICE_OLE}));
  EXPECT_EQ(trace.count("OLE object found in letter.doc "), 1);
  EXPECT_EQ(trace.count("WARN", kOleReason), 1);
  static_cast<void>(s_scan(make_cfb({cfb_stream("a")}).bytes, {KV_AC_MSOFFICE_MACRO}));
  EXPECT_EQ(trace.count("No macros found"), 1);
}

TEST(CompoundDocument, LogsDamageAsAnError) {
  const trace_capture trace;
  static_cast<void>(s_scan("x", {KV_AC_MSOFFICE_OLE}));
  EXPECT_EQ(trace.count("ERROR", "Error reading buffer"), 1);
  static_cast<void>(s_scan("x", {KV_AC_MSOFFICE_MACRO}));
  EXPECT_EQ(trace.count("ERROR", "Error reading buffer"), 2);
}

}  // namespace
