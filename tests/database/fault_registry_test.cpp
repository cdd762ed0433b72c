// The registry writer under a file-size limit: the old registry survives and
// the user is told why the load failed.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "vxtest.h"

namespace {

// Lowers this process's file-size limit for the children started while it
// lives (limits are inherited through fork and exec).
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved_); }

 private:
  rlimit saved_{};
};

const char kDbc[] = "BO_ 291 Engine: 8 ECU\n SG_ Rpm : 0|16@1+ (0.25,0) [0|0] \"rpm\" GW\n";

TEST(RegistryFault, FileSizeLimitKeepsThePreviousRegistry) {
  vxtest::Sandbox box;
  const std::string registry = box.path("state/vxcli/databases.json");
  ASSERT_EQ(box.vxcli({"database", "load", "--file=" + box.write_file("first.dbc", kDbc)}).rc, 0);
  const std::string before = vxtest::read_file(registry);
  ASSERT_NE(before.find("first"), std::string::npos);
  const std::string second = box.write_file("second.dbc", kDbc);

  vxtest::RunResult refused;
  {
    FileSizeLimit limit(before.size() + 16);  // the new registry needs about twice that
    refused = box.vxcli({"database", "load", "--file=" + second});
  }
  EXPECT_EQ(refused.rc, 1) << refused.err;
  EXPECT_EQ(refused.err.rfind("ERROR: ", 0), 0u) << refused.err;
  EXPECT_NE(refused.err.find("registry"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("File too large"), std::string::npos) << refused.err;
  EXPECT_EQ(vxtest::read_file(registry), before);
  EXPECT_NE(access((registry + ".tmp").c_str(), F_OK), 0) << "temporary file left behind";

  // Without the limit the same load goes through and the registry still parses.
  ASSERT_EQ(box.vxcli({"database", "load", "--file=" + second}).rc, 0);
  vxtest::RunResult list = box.vxcli({"database", "list"});
  EXPECT_NE(list.out.find("first"), std::string::npos);
  EXPECT_NE(list.out.find("second"), std::string::npos);
}

}  // namespace
