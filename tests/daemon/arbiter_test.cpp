#include "daemon/arbiter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Identifiers differing only in their last byte: both 64-bit halves count.
vxcli_control_session_id session_of(uint8_t last) {
  vxcli_control_session_id id{};
  std::memset(id.bytes, 0x42, sizeof id.bytes);
  id.bytes[15] = last;
  return id;
}

class Arbiter : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&arb, 0x5A, sizeof arb);  // init must not rely on zeroed memory
    vxcli_control_arbiter_init(&arb);
  }
  int claim(std::vector<uint32_t> slots, uint64_t now = 0, uint64_t lease = 1000) {
    return vxcli_control_claim_local(&arb, slots.data(), slots.size(), now, lease, &conflict);
  }
  int release(std::vector<uint32_t> slots) {
    return vxcli_control_release_local(&arb, slots.data(), slots.size(), &conflict);
  }
  int check(uint32_t slot, uint32_t requester, const vxcli_control_session_id* session = nullptr,
            uint32_t mode = VXCLI_CONTROL_ACCESS_CONTROL) {
    return vxcli_control_check(&arb, slot, requester, session, mode);
  }
  // Session `s` of peer 77, claimed at 1000 ms with a 10 s timeout, owning `slots`.
  void remote_owns(std::vector<uint32_t> slots) {
    ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 77, "gw", &s, 1000, 10000));
    for (uint32_t slot : slots)
      ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, slot, &s));
  }
  uint32_t owner(uint32_t slot) const { return arb.channels[slot].owner; }

  vxcli_control_arbiter arb;
  int conflict = 0;
  const vxcli_control_session_id s = session_of(1);
  const vxcli_control_session_id other = session_of(2);
};

TEST(ArbiterNames, EveryValueAndUnknown) {
  const char* owners[] = {"none", "local", "remote", "unknown"};
  const char* phases[] = {"active", "configuring", "closing", "neutralizing", "faulted",
                          "disconnected", "unknown"};
  const char* results[] = {"ok", "busy", "invalid", "stale_session", "not_owner", "faulted",
                           "unknown"};
  for (uint32_t i = 0; i < 4; ++i) EXPECT_STREQ(owners[i], vxcli_control_owner_name(i));
  for (uint32_t i = 0; i < 7; ++i) EXPECT_STREQ(phases[i], vxcli_control_phase_name(i));
  for (int i = 0; i < 7; ++i) EXPECT_STREQ(results[i], vxcli_control_result_name(i));
  EXPECT_STREQ("unknown", vxcli_control_result_name(-1));
}

TEST_F(Arbiter, CheckFollowsPhaseThenOwner) {
  EXPECT_EQ(VXCLI_CONTROL_INVALID, check(32, 1));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, check(0, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, check(0, 3));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, check(0, 1, nullptr, 3));

  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_CLOSING);
  EXPECT_EQ(VXCLI_CONTROL_OK, check(4, 1, nullptr, VXCLI_CONTROL_ACCESS_MONITOR));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(4, 1));
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_NEUTRALIZING);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(4, 1));
  for (uint32_t dead : {VXCLI_CONTROL_PHASE_FAULTED, VXCLI_CONTROL_PHASE_DISCONNECTED}) {
    vxcli_control_set_phase(&arb, 4, dead);
    for (uint32_t mode = 0; mode <= 2; ++mode)
      EXPECT_EQ(VXCLI_CONTROL_FAULTED, check(4, 1, nullptr, mode));
  }
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_CONFIGURING);  // ownership decides
  EXPECT_EQ(VXCLI_CONTROL_OK, check(4, 2));

  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1}));
  EXPECT_EQ(VXCLI_CONTROL_OK, check(1, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(1, 2, &s));
  remote_owns({2});
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(2, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(2, 2));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(2, 2, &other));
  EXPECT_EQ(VXCLI_CONTROL_OK, check(2, 2, &s));
  EXPECT_EQ(VXCLI_CONTROL_OK, check(2, 1, nullptr, VXCLI_CONTROL_ACCESS_SEND));
}

TEST_F(Arbiter, ClaimLocalIsValidatedAndAllOrNothing) {
  std::vector<uint32_t> too_many(33);
  for (auto bad : {std::vector<uint32_t>{3, 3}, std::vector<uint32_t>{32}, std::vector<uint32_t>{},
                   too_many}) {
    conflict = 7;
    EXPECT_EQ(VXCLI_CONTROL_INVALID, claim(bad));
    EXPECT_EQ(-1, conflict);
  }
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim({1}, 0, 0));

  remote_owns({2});
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({1, 2}));
  EXPECT_EQ(2, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(1));
  vxcli_control_set_phase(&arb, 6, VXCLI_CONTROL_PHASE_DISCONNECTED);
  vxcli_control_set_phase(&arb, 7, VXCLI_CONTROL_PHASE_CONFIGURING);
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, claim({5, 6, 7}));
  EXPECT_EQ(6, conflict);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({5, 7, 6}));  // the first conflict in list order
  EXPECT_EQ(7, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(5));
}

TEST_F(Arbiter, LocalLeaseRenewalReleaseAndExpiry) {
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({0, 9}, 5000, 1000));
  vxcli_control_expire_local(&arb, 5999);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, owner(0));
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({9}, 5500, 1000));  // renewal moves only slot 9
  vxcli_control_expire_local(&arb, 6000);               // an expiry equal to now expires
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(0));
  EXPECT_EQ(0u, arb.channels[0].lease_expiry_ms);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, owner(9));
  EXPECT_EQ(0u, vxcli_control_expire(&arb, 6500));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(9));
  arb.channels[3].owner = VXCLI_CONTROL_OWNER_LOCAL;  // no expiry: held for good
  vxcli_control_expire_local(&arb, UINT64_MAX);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, owner(3));

  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1, 2}));
  vxcli_control_commit_configuration(&arb, 1);
  vxcli_control_set_phase(&arb, 1, VXCLI_CONTROL_PHASE_CONFIGURING);
  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER, release({1, 4, 2}));
  EXPECT_EQ(4, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, owner(1));
  EXPECT_EQ(VXCLI_CONTROL_OK, release({2, 1}));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(1));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_CONFIGURING, arb.channels[1].phase);
  EXPECT_EQ(1u, arb.channels[1].config_generation);
}

TEST_F(Arbiter, RemoteSessionClaimHeartbeatAndChannels) {
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 0, "x", &s, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 5, "x", nullptr, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 5, "x", &s, 0, 0));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_heartbeat_remote_session(&arb, 5, &s, 0));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_claim_remote_channel(&arb, 0, &s));

  const char* long_name = "a-remote-session-name-longer-than-31-characters";
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 5, long_name, &s, 1000, 10000));
  EXPECT_EQ(std::string(long_name, 31), arb.remote.name);
  EXPECT_EQ(11000u, arb.remote.expiry_ms);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, vxcli_control_claim_remote_session(&arb, 5, "o", &other, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, vxcli_control_claim_remote_session(&arb, 6, "o", &s, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 5, nullptr, &s, 2000, 3000));
  EXPECT_EQ(5000u, arb.remote.expiry_ms);  // renewed with the new timeout, name kept
  EXPECT_EQ(std::string(long_name, 31), arb.remote.name);

  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_heartbeat_remote_session(&arb, 6, &s, 4000));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION,
            vxcli_control_heartbeat_remote_session(&arb, 5, &other, 4000));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_heartbeat_remote_session(&arb, 5, &s, 4000));
  EXPECT_EQ(7000u, arb.remote.expiry_ms);

  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_claim_remote_channel(&arb, 0, &other));
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1}));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, vxcli_control_claim_remote_channel(&arb, 1, &s));
  vxcli_control_set_phase(&arb, 2, VXCLI_CONTROL_PHASE_FAULTED);
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, vxcli_control_claim_remote_channel(&arb, 2, &s));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, 0, &s));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, 0, &s));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_REMOTE, owner(0));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({0}));
}

TEST_F(Arbiter, RemoteReleaseAndExpiry) {
  remote_owns({3, 8});
  arb.channels[12].owner = VXCLI_CONTROL_OWNER_REMOTE;  // left by another session
  arb.channels[12].owner_session = other;

  uint32_t mask = 99;
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_begin_remote_release(&arb, 78, &s, &mask));
  EXPECT_EQ(0u, mask);
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_begin_remote_release(&arb, 77, &s, &mask));
  EXPECT_EQ((1u << 3) | (1u << 8), mask);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_NEUTRALIZING, arb.channels[3].phase);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[12].phase);

  auto complete = [&](uint32_t slot, const vxcli_control_session_id* id, int ok, uint32_t code) {
    return vxcli_control_complete_remote_channel_release(&arb, slot, id, ok, code);
  };
  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER, complete(3, &other, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER, complete(4, &s, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_OK, complete(3, &s, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(3));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[3].phase);
  // A failed neutralization keeps the owner, so nobody controls the channel.
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, complete(8, &s, 0, 0xBAD));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_REMOTE, owner(8));
  EXPECT_EQ(0xBADu, arb.channels[8].fault_code);
  vxcli_control_finish_remote_release(&arb);
  EXPECT_EQ(0u, arb.remote.active);
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, check(8, 1));
  vxcli_control_commit_configuration(&arb, 8);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[8].phase);
  EXPECT_EQ(0u, arb.channels[8].fault_code);
  EXPECT_EQ(1u, arb.channels[8].config_generation);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, check(8, 1));

  // An overdue session: expire marks its channels, the caller finishes it.
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 9, "n", &other, 0, 1000));
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, 20, &other));
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({21}, 0, 500));
  EXPECT_EQ(0u, vxcli_control_expire(&arb, 999));
  EXPECT_EQ((1u << 12) | (1u << 20), vxcli_control_expire(&arb, 1000));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_NEUTRALIZING, arb.channels[20].phase);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(21));
  vxcli_control_clear_slot(&arb, 20);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, owner(20));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[20].phase);
}

}  // namespace
