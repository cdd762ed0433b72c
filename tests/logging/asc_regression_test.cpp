// ASC lines the fuzzer turned up; each once broke the parse/write round trip.
#include <gtest/gtest.h>

#include "logging/asc.h"

namespace {

// Parses a line, writes the frame back and parses that again.
void round_trip(const char* line, vxcli_log_frame* first, vxcli_log_frame* second) {
  ASSERT_EQ(vxcli_parse_asc_event(line, first), 1) << line;
  char written[512];
  ASSERT_GT(vxcli_asc_format_frame(written, sizeof written, first->time, first), 0);
  ASSERT_EQ(vxcli_parse_asc_event(written, second), 1) << written;
}

TEST(AscRegression, ClassicFrameInAnFdLineCarriesNoFdBits) {
  // The flags column (2000: BRS without EDL): a classic frame, whose BRS column must not stick.
  vxcli_log_frame first, second;
  round_trip(" 0.014657 CANFD   1 Rx        400               1 1 4  4 D1 12 00 00   0    0     "
             "2000        0        0        0        0        0",
             &first, &second);
  EXPECT_EQ(first.fd, 0);
  EXPECT_EQ(first.brs, 0);
  EXPECT_EQ(first.esi, 0);
  EXPECT_EQ(second.brs, first.brs);
  EXPECT_EQ(second.length, first.length);
}

}  // namespace
