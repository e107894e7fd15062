#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/service_fixture.h"
#include "support/trace_capture.h"

namespace {

class Definitions : public testing::Test {
 protected:
  // The switches of a job of the pair, or an empty list when there is no definition.
  std::vector<int> switches(const char* realm = "r1", const char* sid = "S1") {
    const kv_scanobject_ptr job{kv_worker_new_scanobject()};
    if (kvactivecontent_extract_ac_parameters(&service.config, job.get(), service.state(), realm,
                                              sid) != 0) {
      return {};
    }
    return {std::begin(job->ActiveContent->slots), std::end(job->ActiveContent->slots)};
  }
  std::vector<int> only(std::initializer_list<kv_ac_slot> on) {
    std::vector<int> expected(KV_AC_SLOT_COUNT, 0);
    for (const kv_ac_slot slot : on) {
      expected[slot] = 1;
    }
    return expected;
  }
  void flush(const char* realm, const char* sid, bool all = false) {
    kvactivecontent_free_definitions(service.state(), realm, sid, all);
  }
  std::size_t asked() { return service.questions().size(); }

  service_fixture service;
};

TEST_F(Definitions, AreAskedForOnFirstUseOnly) {
  service.answer_definition(R"([["FLASH", 1]])");
  EXPECT_EQ(switches(), only({KV_AC_FLASH}));
  EXPECT_EQ(switches(), only({KV_AC_FLASH}));
  ASSERT_EQ(asked(), 1U);
  const definition_question question = service.questions()[0];
  EXPECT_EQ(question.service, "kv-av-worker-control");
  EXPECT_EQ(question.request, R"({ "Command" : 203 , "realmID" : "r1", "SID" : "S1" })");
  EXPECT_EQ(question.timeout_ms, 5000);
  EXPECT_EQ(question.retries, 3U);
}

TEST_F(Definitions, RequestKeepsItsFormWhateverTheNames) {
  EXPECT_TRUE(switches("a\",\"Command\":9,\"x\":\"b/c", "S\n").empty());
  EXPECT_EQ(service.questions()[0].request,
            R"({ "Command" : 203 , "realmID" : "a\",\"Command\":9,\"x\":\"b/c", "SID" : "S\n" })");
}

struct named_slot {
  const char* name;
  kv_ac_slot slot;
};
constexpr std::array<named_slot, 23> kNames{{
    {"EXECUTABLE", KV_AC_EXECUTABLE},
    {"FLASH", KV_AC_FLASH},
    {"GIFAR", KV_AC_GIFAR},
    {"HTML_EVENTHANDLER", KV_AC_HTML_EVENTHANDLER},
    {"HTML_SCRIPT", KV_AC_HTML_SCRIPT},
    {"MSOFFICE_JAVA", KV_AC_MSOFFICE_JAVA},
    {"MSOFFICE_OLE", KV_AC_MSOFFICE_OLE},
    {"MSOFFICE_DDE", KV_AC_MSOFFICE_DDE},
    {"MSOFFICE_MACRO", KV_AC_MSOFFICE_MACRO},
    {"MSOFFICE_MACRO_SIGNED", KV_AC_MSOFFICE_MACRO_SIGNED},
    {"PDF_ACROFORM", KV_AC_PDF_ACROFORM},
    {"PDF_ACTIVEACTION", KV_AC_PDF_ACTIVEACTION},
    {"PDF_JAVASCRIPT", KV_AC_PDF_JAVASCRIPT},
    {"PDF_LAUNCH", KV_AC_PDF_LAUNCH},
    {"PDF_OPENACTION", KV_AC_PDF_OPENACTION},
    {"PDF_RICHMEDIA", KV_AC_PDF_RICHMEDIA},
    {"PDF_METADATA_PERL", KV_AC_PDF_METADATA_PERL},
    {"PDF_METADATA_PHP", KV_AC_PDF_METADATA_PHP},
    {"SILVERLIGHT", KV_AC_SILVERLIGHT},
    {"ZIP_JAVA_ARCHIVE", KV_AC_ZIP_JAVA_ARCHIVE},
    {"XML_JAVASCRIPT", KV_AC_XML_JAVASCRIPT},
    {"XML_XSLT", KV_AC_XML_XSLT},
    {"CSV_INJECTION", KV_AC_CSV_INJECTION},
}};

TEST_F(Definitions, EveryNameHasItsSlot) {
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    const trace_capture trace;
    EXPECT_EQ(kNames[i].slot, i);
    flush(nullptr, nullptr, true);
    service.answer_definition(std::string("[[\"") + kNames[i].name + "\", 1]]");
    EXPECT_EQ(switches(), only({kNames[i].slot})) << kNames[i].name;
    EXPECT_EQ(trace.count("TRACE", std::string("Blocking ") + kNames[i].name + " is ON"), 1);
    EXPECT_EQ(trace.count("DEBUG", std::string("Added parameter:  ") + kNames[i].name + " => 1"),
              1);
  }
}

TEST_F(Definitions, EmptyArrayTurnsEverythingOffAndIsNotAskedForAgain) {
  service.answer_definition("[]");
  EXPECT_EQ(switches(), only({}));
  EXPECT_EQ(switches(), only({}));
  EXPECT_EQ(asked(), 1U);
}

TEST_F(Definitions, LaterOfTwoEqualNamesWins) {
  service.answer_definition(R"([["FLASH", 1], ["FLASH", 0]])");
  const trace_capture trace;
  EXPECT_EQ(switches(), only({}));
  EXPECT_EQ(trace.count("TRACE", "Blocking FLASH is ON"), 1);
  EXPECT_EQ(trace.count("TRACE", "Blocking FLASH is OFF"), 1);
}

TEST_F(Definitions, NamesAreComparedWholeAndWithTheirCase) {
  service.answer_definition(R"([["flash", 1], ["FLASH ", 1], ["FLAS", 1], ["", 1]])");
  const trace_capture trace;
  EXPECT_EQ(switches(), only({}));
  EXPECT_EQ(trace.count("Blocking "), 0);
}

TEST_F(Definitions, ValuesAreKeptAsTheirLowestByte) {
  service.answer_definition(R"([["FLASH", 2], ["GIFAR", 257], ["EXECUTABLE", 256],
                               ["CSV_INJECTION", -1]])");
  const trace_capture trace;
  const std::vector<int> got = switches();
  ASSERT_EQ(got.size(), std::size_t{KV_AC_SLOT_COUNT});
  EXPECT_EQ(got[KV_AC_FLASH], 2);
  EXPECT_EQ(got[KV_AC_GIFAR], 1);
  EXPECT_EQ(got[KV_AC_EXECUTABLE], 0);
  EXPECT_EQ(got[KV_AC_CSV_INJECTION], 255);
  EXPECT_EQ(trace.count("TRACE", "Blocking EXECUTABLE is ON"), 1);  // the value, not the byte
}

TEST_F(Definitions, ElementsOfWrongFormHaveAnEmptyNameOrNoValue) {
  const trace_capture trace;
  service.answer_definition(
      R"([17, null, {}, "FLASH", [], ["FLASH"], [null, 1], [["GIFAR"], 1], ["GIFAR", "1"],
          ["SILVERLIGHT", true], ["EXECUTABLE", {}], ["CSV_INJECTION", 1, 5]])");
  EXPECT_EQ(switches(), only({KV_AC_GIFAR, KV_AC_SILVERLIGHT, KV_AC_CSV_INJECTION}));
  EXPECT_EQ(trace.count("DEBUG", "Added parameter:   => 0"), 5);
  EXPECT_EQ(trace.count("DEBUG", "Added parameter:   => 1"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Added parameter:  FLASH => 0"), 1);
}

TEST_F(Definitions, WithoutAnArrayThereIsNoDefinition) {
  for (const char* reply : {"", "{}", "[]", "7", R"({"Active-content-definition": null})",
                            R"({"Active-content-definition": {"FLASH": 1}})",
                            R"({"Active-content-definition": "FLASH"})"}) {
    const trace_capture trace;
    service.answer(reply);
    EXPECT_TRUE(switches().empty()) << reply;
    EXPECT_EQ(trace.count("DEBUG", "Parameters for r1/S1 not yet retrieved"), 1);
    EXPECT_EQ(trace.count("ERROR", "Failed to get active content definitions for r1/S1"), 1);
    EXPECT_EQ(trace.count("ERROR", "Failed to load active content definition for r1/S1"), 1);
  }
  EXPECT_EQ(asked(), 7U);  // nothing was stored: every job asked again
}

TEST_F(Definitions, LookupLeavesItsSteps) {
  service.answer_definition("[]");
  const trace_capture trace;
  switches("r1", "S1");
  switches("r2", "S2");
  EXPECT_EQ(trace.count("DEBUG", "Looking up parameters list for r2/S2"), 2);
  EXPECT_EQ(trace.count("TRACE", "Have parameters list for r1/S1"), 3);
  EXPECT_EQ(trace.count("TRACE", "Have parameters list for r2/S2"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Found parameters list for r2/S2"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Stored active content definitions for r2/S2"), 1);
}

TEST_F(Definitions, PairsAreToldApartByCaseAndBoundary) {
  service.answer_definition("[]");
  for (const auto& [realm, sid] : {std::pair{"r1", "S1"}, std::pair{"R1", "S1"},
                                   std::pair{"r1", "s1"}, std::pair{"r", "1S1"}}) {
    EXPECT_EQ(switches(realm, sid), only({}));
  }
  EXPECT_EQ(asked(), 4U);
}

TEST_F(Definitions, FirstOfTwoStoredEntriesCounts) {
  for (const bool traced : {false, true}) {
    flush(nullptr, nullptr, true);
    std::unique_ptr<trace_capture> trace{traced ? new trace_capture : nullptr};
    service.answer_definition(R"([["FLASH", 1]])");
    ASSERT_EQ(kvactivecontent_load_ac_definition(&service.config, service.state(), "r1", "S1"), 1);
    service.answer_definition(R"([["GIFAR", 1]])");
    ASSERT_EQ(kvactivecontent_load_ac_definition(&service.config, service.state(), "r1", "S1"), 1);
    EXPECT_EQ(switches(), only({KV_AC_FLASH}));
    flush("r1", "S1");
    EXPECT_TRUE(service.state()->definitions.all().empty());
  }
}

class Flush : public Definitions {
 protected:
  void SetUp() override {
    service.answer_definition("[]");
    for (const char* realm : {"r1", "r2"}) {
      for (const char* sid : {"S1", "S2"}) {
        switches(realm, sid);
      }
    }
  }
  std::vector<std::string> left() {
    std::vector<std::string> pairs;
    for (const kv_ac_definition& entry : service.state()->definitions.all()) {
      pairs.push_back(entry.realm + "/" + entry.sid);
    }
    return pairs;
  }
  using names = std::vector<std::string>;
};

TEST_F(Flush, RealmTakesAllItsSids) {
  const trace_capture trace;
  flush("r1", nullptr);
  EXPECT_EQ(left(), (names{"r2/S1", "r2/S2"}));
  EXPECT_EQ(trace.count("DEBUG", "Flushing for active content definitions for r1/ALL"), 1);
  EXPECT_EQ(trace.count("TRACE", "Freeing active content definitions for r1/S2"), 1);
  EXPECT_EQ(trace.count("TRACE", "Freed active content definitions for r1/ALL"), 2);
  EXPECT_EQ(trace.count("DEBUG", "Freed 2 active content definitions"), 1);
}

TEST_F(Flush, SidTakesItFromEveryRealm) {
  flush(nullptr, "S2");
  EXPECT_EQ(left(), (names{"r1/S1", "r2/S1"}));
}

TEST_F(Flush, PairTakesOneAndTheNextJobAsksAgain) {
  flush("r1", "S2");
  EXPECT_EQ(left(), (names{"r1/S1", "r2/S1", "r2/S2"}));
  EXPECT_EQ(switches("r1", "S2"), only({}));
  EXPECT_EQ(asked(), 5U);
  EXPECT_EQ(switches("r1", "S1"), only({}));
  EXPECT_EQ(asked(), 5U);
}

TEST_F(Flush, UnknownPairTakesNone) {
  const trace_capture trace;
  flush("R1", "S2");
  EXPECT_EQ(left().size(), 4U);
  EXPECT_EQ(trace.count("DEBUG", "Freed 0 active content definitions"), 1);
}

TEST_F(Flush, AllTakesEverythingWhateverTheNames) {
  const trace_capture trace;
  flush("r1", "S1", true);
  EXPECT_TRUE(left().empty());
  EXPECT_EQ(trace.count("DEBUG", "Flushing ALL active content definitions"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Freed 4 active content definitions"), 1);
  flush(nullptr, nullptr, true);
  EXPECT_EQ(trace.count("DEBUG", "Freed 0 active content definitions"), 1);
}

TEST_F(Flush, NamingNeitherTakesEverything) {
  const trace_capture trace;
  flush(nullptr, nullptr);
  EXPECT_TRUE(left().empty());
  EXPECT_EQ(trace.count("DEBUG", "Flushing for active content definitions for ALL/ALL"), 1);
}

TEST_F(Definitions, ManyTenantsKeepTheirOwn) {
  for (int i = 0; i < 3000; ++i) {
    service.answer_definition("[[\"FLASH\", " + std::to_string(i % 2) + "]]");
    switches(("r" + std::to_string(i)).c_str(), "S");
  }
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(switches(("r" + std::to_string(i)).c_str(), "S")[KV_AC_FLASH], i % 2);
  }
  EXPECT_EQ(asked(), 3000U);
}

TEST_F(Definitions, ScansGoOnWhileDefinitionsAreFlushed) {
  service.answer_definition(R"([["FLASH", 1], ["GIFAR", 1], ["CSV_INJECTION", 1]])");
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::atomic<int> scanned{0};
  const std::vector<int> expected = only({KV_AC_FLASH, KV_AC_GIFAR, KV_AC_CSV_INJECTION});
  std::vector<std::thread> scans;
  for (int t = 0; t < 4; ++t) {
    scans.emplace_back([&, t] {
      const std::string realm = "r" + std::to_string(t % 2);
      while (!stop) {
        const std::vector<int> got = switches(realm.c_str());
        // A flush between a fetch and the lookup behind it leaves a job without a definition.
        wrong += got.empty() || got == expected ? 0 : 1;
        ++scanned;
      }
    });
  }
  for (int i = 0; i < 500 || scanned < 100; ++i) {
    flush(i % 3 == 0 ? "r0" : nullptr, nullptr, i % 3 == 1);
  }
  stop = true;
  for (std::thread& scan : scans) {
    scan.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(scanned, 0);
}

}  // namespace
