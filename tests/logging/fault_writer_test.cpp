// The log writers under a file-size limit: an error and exit 1, never a
// process killed by SIGXFSZ or a truncated file reported as complete.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "log_test.h"
#include "logging/blf_writer.h"
#include "vxtest.h"

namespace {

// Lowers the file-size limit of this process and of the children it starts
// while it lives; a write past it then fails with EFBIG instead of SIGXFSZ.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    previous_handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, previous_handler_);
  }

 private:
  rlimit saved_{};
  sighandler_t previous_handler_;
};

off_t file_size(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(LogWriterFault, LoggingReportsTheLimitForBothFormats) {
  vxtest::Sandbox box;
  // A 1 ms TX task keeps the bus busy; the analyzer starts before the limit so
  // that only the logger runs under it.
  auto r = box.vxcli({"txtask", "add", "--channel=10356/0", "--message=0x123", "--cycle=1",
                      "--data=0102030405060708"});
  ASSERT_EQ(r.rc, 0) << r.err;
  for (const char* format : {"asc", "blf"}) {
    SCOPED_TRACE(format);
    const std::string output = box.path(std::string("cut.") + format);
    {
      FileSizeLimit limit(6000);  // a few hundred frames at most
      r = box.vxcli({"logging", "start", "--channel=10357/0", "--output=" + output,
                     std::string("--format=") + format, "--duration=3"});
    }
    EXPECT_EQ(r.rc, 1) << r.err;
    EXPECT_EQ(r.err.rfind("ERROR: Failed to write " + output + ";", 0), 0u) << r.err;
    EXPECT_LE(file_size(output), 6000);
  }
}

TEST(LogWriterFault, BlfFileCutByTheLimitEndsOnAWholeContainer) {
  logtest::TempDir dir;
  const std::string path = dir.file("cut.blf");
  const std::vector<vxcli_log_frame> frames = logtest::sample_frames(false);
  int accepted = 0;
  int closed = 0;
  {
    FileSizeLimit limit(8000);
    vxcli_blf_handle* blf = vxcli_blf_open(path.c_str(), 1700000000000000000ULL);
    ASSERT_NE(blf, nullptr);
    for (int round = 0; round < 20; round++)
      for (const vxcli_log_frame& f : frames) {
        if (vxcli_blf_write_frame(blf, 1700000000000000000ULL + f.time_ns, &f) < 0) goto full;
        accepted++;
      }
  full:
    closed = vxcli_blf_close(blf);
  }
  EXPECT_EQ(closed, -1);  // the writer batches: the failure may only show at close
  EXPECT_LE(file_size(path), 8000);
  // Everything up to the last whole container reads back, in order.
  int rc = 0;
  std::vector<vxcli_log_frame> back = logtest::read_frames(path, true, &rc);
  EXPECT_EQ(rc, 0);
  ASSERT_GT(back.size(), 0u);
  EXPECT_LE(back.size(), static_cast<size_t>(accepted));
  for (size_t i = 0; i < back.size(); i++)
    ASSERT_EQ(logtest::describe(back[i]), logtest::describe(frames[i % frames.size()])) << i;
}

}  // namespace
