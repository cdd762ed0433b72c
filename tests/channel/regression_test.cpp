// Inputs that once slipped through the value parsers.
#include <gtest/gtest.h>

#include "channel/channel.h"

namespace {

TEST(ChannelSpecRegression, HugeIndexIsRejectedNotWrapped) {
  // "4294967296" used to wrap to index 0 and open the first channel.
  vxcli_channel_spec spec;
  for (const char* text : {"4294967296", "99999999999999999999", "1234567"})
    EXPECT_EQ(vxcli_parse_channel_spec(text, &spec), -1) << text;
  ASSERT_EQ(vxcli_parse_channel_spec("31", &spec), 0);
  EXPECT_EQ(spec.index, 31);
}

}  // namespace
