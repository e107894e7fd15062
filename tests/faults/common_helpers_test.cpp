#include <gtest/gtest.h>

#include <string>

#include "common/kv_json.h"
#include "common/kvhlp_network.h"
#include "support/alloc_faults.h"
#include "support/trace_capture.h"

namespace {

TEST(JsonFaults, AParserThatCannotBeMadeIsLoggedAndTheTextNotParsed) {
  const trace_capture trace;
  {
    const alloc_fault fault{fault_point::json_new_tokener, 0};
    EXPECT_FALSE(kv_json_parse("{}", "reader", "a_unit", 7));
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to create JSON tokener"), 1);
  EXPECT_EQ(trace.count(":reader(): Failed to create JSON tokener (a_unit:7)"), 1);
  EXPECT_TRUE(kv_json_parse("{}", "reader", "a_unit", 8));
}

TEST(NetworkFaults, AHostWithoutANameIsLogged) {
  const trace_capture trace;
  {
    const alloc_fault fault{fault_point::host_name, 0};
    EXPECT_EQ(kvhlp_GetMyFQDN(), nullptr);
  }
  EXPECT_EQ(trace.count("ERROR", "Failed to get hostname"), 1);
  EXPECT_NE(kvhlp_GetMyFQDN(), nullptr);
}

}  // namespace
