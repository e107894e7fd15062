#include "common/kvhlp_environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/temp_dir.h"

namespace {

TEST(GetSID, ReadsTheVariableElseTheHostName) {
  char buffer[256];
  setenv("SAPSYSTEMNAME", "ABC", 1);
  EXPECT_EQ(HlpGetSID(buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "ABC");
  EXPECT_EQ(HlpGetSID(buffer, 3), 1);
  EXPECT_STREQ(buffer, "AB") << "cut to the buffer";
  unsetenv("SAPSYSTEMNAME");
  char host[256];
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  EXPECT_EQ(HlpGetSID(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, host);
  EXPECT_EQ(HlpGetSID(nullptr, 5), -1);
  EXPECT_EQ(HlpGetSID(buffer, 0), -1);
}

class VsaLib : public testing::Test {
 protected:
  ~VsaLib() override { unsetenv("VSA_LIB"); }
  int evaluate(const std::string& value) {
    setenv("VSA_LIB", value.c_str(), 1);
    return HlpEvaluateVSA_LIB(directory_, sizeof directory_, message_, sizeof message_);
  }
  temp_dir folder_;
  char directory_[256] = "?";
  char message_[1024] = "";
};

TEST_F(VsaLib, CutsTheLibraryNameInAnyCase) {
  for (const char* const name : {"libkvAV.so", "LIBKVav64.so", ""}) {
    EXPECT_EQ(evaluate(folder_.path() + "/" + name), 0);
    EXPECT_EQ(directory_, folder_.path() + "/");
  }
}

TEST_F(VsaLib, TellsWhatIsWrong) {
  EXPECT_EQ(evaluate(folder_.path() + "/none/libkvAV.so"), -1);
  EXPECT_EQ(message_, folder_.path() + "/none/ does not exist");
  EXPECT_STREQ(directory_, "");
  write_whole_file(folder_.file("f"), "x");
  EXPECT_EQ(evaluate(folder_.file("f")), -1);
  EXPECT_EQ(message_, folder_.file("f") + " is not a valid directory");
  EXPECT_EQ(evaluate("libkvAV.so"), -1);
  EXPECT_STREQ(message_, "VSA_LIB not set or invalid");
  EXPECT_EQ(evaluate(std::string(300, 'x')), -1);
  EXPECT_STREQ(message_, "VSA_LIB not set or invalid");
  unsetenv("VSA_LIB");
  EXPECT_EQ(HlpEvaluateVSA_LIB(directory_, sizeof directory_, message_, sizeof message_), -1);
  EXPECT_STREQ(message_, "Could not read VSA_LIB environment variable");
  EXPECT_EQ(HlpEvaluateVSA_LIB(directory_, sizeof directory_, nullptr, 0), -1);
  EXPECT_EQ(HlpEvaluateVSA_LIB(nullptr, 0, message_, sizeof message_), -1);
}

}  // namespace
