#include "daemon/arbiter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

vxcli_control_session_id session_of(uint8_t seed) {
  vxcli_control_session_id id{};
  for (size_t i = 0; i < sizeof id.bytes; ++i) id.bytes[i] = static_cast<uint8_t>(seed + i);
  return id;
}

class Arbiter : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&arb, 0x5A, sizeof arb);  // init must not rely on zeroed memory
    vxcli_control_arbiter_init(&arb);
  }

  int claim(std::vector<uint32_t> slots, uint64_t now, uint64_t lease, int* conflict) {
    return vxcli_control_claim_local(&arb, slots.data(), slots.size(), now, lease, conflict);
  }
  int release(std::vector<uint32_t> slots, int* conflict) {
    return vxcli_control_release_local(&arb, slots.data(), slots.size(), conflict);
  }
  int control(uint32_t slot, uint32_t requester, const vxcli_control_session_id* s = nullptr) {
    return vxcli_control_check(&arb, slot, requester, s, VXCLI_CONTROL_ACCESS_CONTROL);
  }
  // An active remote session owning the given slots.
  void remote_owns(std::vector<uint32_t> slots, const vxcli_control_session_id& s) {
    ASSERT_EQ(VXCLI_CONTROL_OK,
              vxcli_control_claim_remote_session(&arb, 77, "bench", &s, 1000, 10000));
    for (uint32_t slot : slots)
      ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, slot, &s));
  }

  vxcli_control_arbiter arb;
};

TEST(ArbiterNames, EveryValueAndUnknown) {
  EXPECT_STREQ("none", vxcli_control_owner_name(0));
  EXPECT_STREQ("local", vxcli_control_owner_name(1));
  EXPECT_STREQ("remote", vxcli_control_owner_name(2));
  EXPECT_STREQ("unknown", vxcli_control_owner_name(3));
  const char* phases[] = {"active", "configuring", "closing", "neutralizing", "faulted",
                          "disconnected"};
  for (uint32_t p = 0; p < 6; ++p) EXPECT_STREQ(phases[p], vxcli_control_phase_name(p));
  EXPECT_STREQ("unknown", vxcli_control_phase_name(6));
  const char* results[] = {"ok", "busy", "invalid", "stale_session", "not_owner", "faulted"};
  for (int r = 0; r < 6; ++r) EXPECT_STREQ(results[r], vxcli_control_result_name(r));
  EXPECT_STREQ("unknown", vxcli_control_result_name(-1));
  EXPECT_STREQ("unknown", vxcli_control_result_name(6));
}

TEST_F(Arbiter, InitLeavesEverySlotFreeAndActive) {
  for (const auto& entry : arb.channels) {
    EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, entry.owner);
    EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, entry.phase);
    EXPECT_EQ(0u, entry.config_generation);
  }
  EXPECT_EQ(0u, arb.remote.active);
}

TEST_F(Arbiter, CheckRejectsBadArguments) {
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_check(nullptr, 0, 1, nullptr, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_check(&arb, 32, 1, nullptr, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_check(&arb, 0, 0, nullptr, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_check(&arb, 0, 3, nullptr, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_check(&arb, 0, 1, nullptr, 3));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_check(&arb, 31, 2, nullptr, 2));
}

TEST_F(Arbiter, CheckSharingIgnoresOwnershipButNotFaults) {
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_CLOSING);
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_check(&arb, 4, 1, nullptr, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, vxcli_control_check(&arb, 4, 1, nullptr, 2));
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_NEUTRALIZING);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(4, 1));
  for (uint32_t dead : {VXCLI_CONTROL_PHASE_FAULTED, VXCLI_CONTROL_PHASE_DISCONNECTED}) {
    vxcli_control_set_phase(&arb, 4, dead);
    for (uint32_t mode = 0; mode <= 2; ++mode)
      EXPECT_EQ(VXCLI_CONTROL_FAULTED, vxcli_control_check(&arb, 4, 1, nullptr, mode));
  }
  // "configuring" alone does not block a control access.
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_CONFIGURING);
  EXPECT_EQ(VXCLI_CONTROL_OK, control(4, 1));

  // A remotely owned channel is still shared for sending and monitoring.
  const auto s = session_of(1);
  remote_owns({5}, s);
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_check(&arb, 5, 1, nullptr, 0));
}

TEST_F(Arbiter, CheckControlFollowsOwner) {
  const auto s = session_of(1);
  const auto other = session_of(2);
  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1}, 0, 1000, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_OK, control(1, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(1, 2, &s));

  remote_owns({2}, s);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(2, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(2, 2));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(2, 2, &other));
  EXPECT_EQ(VXCLI_CONTROL_OK, control(2, 2, &s));
}

TEST_F(Arbiter, ClaimLocalValidation) {
  int conflict = 7;
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim({3, 3}, 0, 1000, &conflict));
  EXPECT_EQ(-1, conflict);
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim({32}, 0, 1000, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim({1}, 0, 0, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim({}, 0, 1000, &conflict));
  std::vector<uint32_t> thirty_three(33);
  for (uint32_t i = 0; i < 33; ++i) thirty_three[i] = i % 32;
  EXPECT_EQ(VXCLI_CONTROL_INVALID, claim(thirty_three, 0, 1000, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_local(&arb, nullptr, 1, 0, 1, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_local(nullptr, thirty_three.data(), 1, 0, 1,
                                                             &conflict));
  for (const auto& entry : arb.channels) EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, entry.owner);

  // All 32 distinct slots at once is fine, and the conflict pointer is optional.
  std::vector<uint32_t> all(32);
  for (uint32_t i = 0; i < 32; ++i) all[i] = 31 - i;
  EXPECT_EQ(VXCLI_CONTROL_OK, claim(all, 0, 1000, nullptr));
}

TEST_F(Arbiter, ClaimLocalIsAllOrNothing) {
  const auto s = session_of(9);
  remote_owns({2}, s);
  int conflict = -1;
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({1, 2}, 0, 1000, &conflict));
  EXPECT_EQ(2, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[1].owner);

  vxcli_control_set_phase(&arb, 6, VXCLI_CONTROL_PHASE_DISCONNECTED);
  vxcli_control_set_phase(&arb, 7, VXCLI_CONTROL_PHASE_CONFIGURING);
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, claim({5, 6, 7}, 0, 1000, &conflict));
  EXPECT_EQ(6, conflict);
  // The first conflicting slot in list order decides.
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({5, 7, 6}, 0, 1000, &conflict));
  EXPECT_EQ(7, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[5].owner);
}

TEST_F(Arbiter, LocalLeaseRenewsAndExpiresAtItsDeadline) {
  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({0, 9}, 5000, 1000, &conflict));
  EXPECT_EQ(6000u, arb.channels[9].lease_expiry_ms);
  vxcli_control_expire_local(&arb, 5999);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, arb.channels[9].owner);

  // Renewing slot 9 moves only its deadline.
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({9}, 5500, 1000, &conflict));
  vxcli_control_expire_local(&arb, 6000);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[0].owner);
  EXPECT_EQ(0u, arb.channels[0].lease_expiry_ms);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, arb.channels[9].owner);
  EXPECT_EQ(0u, vxcli_control_expire(&arb, 6500));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[9].owner);

  // A local owner without a deadline is never expired.
  arb.channels[3].owner = VXCLI_CONTROL_OWNER_LOCAL;
  arb.channels[3].lease_expiry_ms = 0;
  vxcli_control_expire_local(&arb, UINT64_MAX);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, arb.channels[3].owner);
}

TEST_F(Arbiter, ReleaseLocal) {
  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1, 2}, 0, 1000, &conflict));
  vxcli_control_commit_configuration(&arb, 1);
  vxcli_control_set_phase(&arb, 1, VXCLI_CONTROL_PHASE_CONFIGURING);

  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER, release({1, 3, 2}, &conflict));
  EXPECT_EQ(3, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, arb.channels[1].owner);
  EXPECT_EQ(VXCLI_CONTROL_INVALID, release({1, 1}, &conflict));
  EXPECT_EQ(-1, conflict);

  EXPECT_EQ(VXCLI_CONTROL_OK, release({2, 1}, &conflict));
  EXPECT_EQ(-1, conflict);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[1].owner);
  EXPECT_EQ(0u, arb.channels[1].lease_expiry_ms);
  // Releasing keeps the phase and the configuration generation.
  EXPECT_EQ(VXCLI_CONTROL_PHASE_CONFIGURING, arb.channels[1].phase);
  EXPECT_EQ(1u, arb.channels[1].config_generation);
  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER, release({1}, &conflict));
}

TEST_F(Arbiter, RemoteSessionClaimAndHeartbeat) {
  const auto s = session_of(1);
  const auto other = session_of(2);
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 0, "x", &s, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 5, "x", nullptr, 0, 10));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_session(&arb, 5, "x", &s, 0, 0));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_heartbeat_remote_session(&arb, 5, &s, 0));

  const char* long_name = "a-remote-session-name-longer-than-31-characters";
  ASSERT_EQ(VXCLI_CONTROL_OK,
            vxcli_control_claim_remote_session(&arb, 5, long_name, &s, 1000, 10000));
  EXPECT_EQ(31u, std::strlen(arb.remote.name));
  EXPECT_EQ(0, std::strncmp(long_name, arb.remote.name, 31));
  EXPECT_EQ(11000u, arb.remote.expiry_ms);

  EXPECT_EQ(VXCLI_CONTROL_BUSY,
            vxcli_control_claim_remote_session(&arb, 5, "other", &other, 1000, 10000));
  EXPECT_EQ(VXCLI_CONTROL_BUSY,
            vxcli_control_claim_remote_session(&arb, 6, "other", &s, 1000, 10000));
  // The owner re-claiming renews with the new timeout and keeps its name.
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 5, nullptr, &s, 2000, 3000));
  EXPECT_EQ(5000u, arb.remote.expiry_ms);
  EXPECT_EQ(0, std::strncmp(long_name, arb.remote.name, 31));

  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_heartbeat_remote_session(&arb, 6, &s, 4000));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION,
            vxcli_control_heartbeat_remote_session(&arb, 5, &other, 4000));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_heartbeat_remote_session(&arb, 5, nullptr, 4000));
  EXPECT_EQ(5000u, arb.remote.expiry_ms);
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_heartbeat_remote_session(&arb, 5, &s, 4000));
  EXPECT_EQ(7000u, arb.remote.expiry_ms);
}

TEST_F(Arbiter, ClaimRemoteChannel) {
  const auto s = session_of(1);
  const auto other = session_of(2);
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_claim_remote_channel(&arb, 0, &s));
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 5, "g", &s, 0, 10000));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_channel(&arb, 32, &s));
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_claim_remote_channel(&arb, 0, nullptr));
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_claim_remote_channel(&arb, 0, &other));

  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({1}, 0, 1000, &conflict));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, vxcli_control_claim_remote_channel(&arb, 1, &s));
  vxcli_control_set_phase(&arb, 2, VXCLI_CONTROL_PHASE_FAULTED);
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, vxcli_control_claim_remote_channel(&arb, 2, &s));

  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, 0, &s));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_REMOTE, arb.channels[0].owner);
  EXPECT_EQ(0, std::memcmp(s.bytes, arb.channels[0].owner_session.bytes, 16));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_channel(&arb, 0, &s));  // idempotent
  // Local control of a remote channel is refused, and a local claim too.
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(0, 1));
  EXPECT_EQ(VXCLI_CONTROL_BUSY, claim({0}, 0, 1000, &conflict));
}

TEST_F(Arbiter, RemoteReleaseSucceedsAndFails) {
  const auto s = session_of(1);
  const auto other = session_of(2);
  remote_owns({3, 8}, s);
  arb.channels[12].owner = VXCLI_CONTROL_OWNER_REMOTE;  // a leftover of another session
  arb.channels[12].owner_session = other;

  uint32_t mask = 99;
  EXPECT_EQ(VXCLI_CONTROL_STALE_SESSION, vxcli_control_begin_remote_release(&arb, 78, &s, &mask));
  EXPECT_EQ(0u, mask);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[3].phase);
  ASSERT_EQ(VXCLI_CONTROL_OK, vxcli_control_begin_remote_release(&arb, 77, &s, &mask));
  EXPECT_EQ((1u << 3) | (1u << 8), mask);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_NEUTRALIZING, arb.channels[3].phase);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[12].phase);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(3, 2, &s));

  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER,
            vxcli_control_complete_remote_channel_release(&arb, 3, &other, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_NOT_OWNER,
            vxcli_control_complete_remote_channel_release(&arb, 4, &s, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_INVALID,
            vxcli_control_complete_remote_channel_release(&arb, 32, &s, 1, 0));

  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_complete_remote_channel_release(&arb, 3, &s, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[3].owner);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[3].phase);
  EXPECT_EQ(0, std::memcmp(vxcli_control_session_id{}.bytes, arb.channels[3].owner_session.bytes,
                           16));

  EXPECT_EQ(VXCLI_CONTROL_FAULTED,
            vxcli_control_complete_remote_channel_release(&arb, 8, &s, 0, 0xBADu));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_REMOTE, arb.channels[8].owner);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_FAULTED, arb.channels[8].phase);
  EXPECT_EQ(0xBADu, arb.channels[8].fault_code);

  vxcli_control_finish_remote_release(&arb);
  EXPECT_EQ(0u, arb.remote.active);
  EXPECT_EQ('\0', arb.remote.name[0]);
  // Nobody controls the faulted channel; configuring it again makes it usable
  // but does not hand it to anyone else.
  EXPECT_EQ(VXCLI_CONTROL_FAULTED, control(8, 1));
  vxcli_control_commit_configuration(&arb, 8);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[8].phase);
  EXPECT_EQ(0u, arb.channels[8].fault_code);
  EXPECT_EQ(1u, arb.channels[8].config_generation);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_REMOTE, arb.channels[8].owner);
  EXPECT_EQ(VXCLI_CONTROL_BUSY, control(8, 1));

  // With the session gone a new one may start.
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_claim_remote_session(&arb, 9, "n", &other, 0, 10));
}

TEST_F(Arbiter, ExpireOverdueRemoteSession) {
  const auto s = session_of(1);
  remote_owns({0, 31}, s);  // claimed at 1000 with a 10000 ms timeout
  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({5}, 1000, 20000, &conflict));

  EXPECT_EQ(0u, vxcli_control_expire(&arb, 10999));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[0].phase);
  EXPECT_EQ((1u << 0) | (1u << 31), vxcli_control_expire(&arb, 11000));
  EXPECT_EQ(VXCLI_CONTROL_PHASE_NEUTRALIZING, arb.channels[31].phase);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_LOCAL, arb.channels[5].owner);
  // A heartbeat after the deadline but before expire ran keeps the session;
  // expire itself does not end it, the caller's finish does.
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_heartbeat_remote_session(&arb, 77, &s, 11001));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_complete_remote_channel_release(&arb, 0, &s, 1, 0));
  EXPECT_EQ(VXCLI_CONTROL_OK, vxcli_control_complete_remote_channel_release(&arb, 31, &s, 1, 0));
  vxcli_control_finish_remote_release(&arb);
  EXPECT_EQ(0u, vxcli_control_expire(&arb, UINT64_MAX / 2));
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[5].owner);
}

TEST_F(Arbiter, SlotAndNullGuards) {
  vxcli_control_set_phase(&arb, 32, VXCLI_CONTROL_PHASE_CLOSING);
  vxcli_control_commit_configuration(&arb, 32);
  vxcli_control_set_phase(nullptr, 0, 1);
  vxcli_control_commit_configuration(nullptr, 0);
  vxcli_control_expire_local(nullptr, 0);
  vxcli_control_finish_remote_release(nullptr);
  vxcli_control_arbiter_init(nullptr);
  EXPECT_EQ(0u, vxcli_control_expire(nullptr, 0));
  uint32_t mask = 1;
  EXPECT_EQ(VXCLI_CONTROL_INVALID, vxcli_control_begin_remote_release(nullptr, 1, nullptr, &mask));
  EXPECT_EQ(0u, mask);

  int conflict = 0;
  ASSERT_EQ(VXCLI_CONTROL_OK, claim({4}, 0, 1000, &conflict));
  vxcli_control_commit_configuration(&arb, 4);
  vxcli_control_set_phase(&arb, 4, VXCLI_CONTROL_PHASE_CLOSING);
  vxcli_control_clear_slot(&arb, 4);
  EXPECT_EQ(VXCLI_CONTROL_OWNER_NONE, arb.channels[4].owner);
  EXPECT_EQ(VXCLI_CONTROL_PHASE_ACTIVE, arb.channels[4].phase);
  EXPECT_EQ(0u, arb.channels[4].lease_expiry_ms);
}

}  // namespace
