// Control arbiter: who may configure each of the daemon's 32 channel slots.
//
// Pure bookkeeping. It takes no lock and reads no clock: callers hold the
// daemon command lock for the whole check-and-act sequence and pass the
// current time in milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t VXCLI_CONTROL_SLOTS = 32;

enum : uint32_t {
  VXCLI_CONTROL_OWNER_NONE = 0,
  VXCLI_CONTROL_OWNER_LOCAL = 1,
  VXCLI_CONTROL_OWNER_REMOTE = 2,
};

enum : uint32_t {
  VXCLI_CONTROL_PHASE_ACTIVE = 0,
  VXCLI_CONTROL_PHASE_CONFIGURING = 1,
  VXCLI_CONTROL_PHASE_CLOSING = 2,
  VXCLI_CONTROL_PHASE_NEUTRALIZING = 3,
  VXCLI_CONTROL_PHASE_FAULTED = 4,
  VXCLI_CONTROL_PHASE_DISCONNECTED = 5,
};

enum : int {
  VXCLI_CONTROL_OK = 0,
  VXCLI_CONTROL_BUSY = 1,
  VXCLI_CONTROL_INVALID = 2,
  VXCLI_CONTROL_STALE_SESSION = 3,
  VXCLI_CONTROL_NOT_OWNER = 4,
  VXCLI_CONTROL_FAULTED = 5,
};

// Who asks (vxcli_control_check).
enum : uint32_t {
  VXCLI_CONTROL_REQUESTER_LOCAL = 1,
  VXCLI_CONTROL_REQUESTER_REMOTE = 2,
};

// Access modes: 0 and 1 share the channel (send, monitor, read state);
// 2 controls it (configuration, persistent jobs, close).
enum : uint32_t {
  VXCLI_CONTROL_ACCESS_SEND = 0,
  VXCLI_CONTROL_ACCESS_MONITOR = 1,
  VXCLI_CONTROL_ACCESS_CONTROL = 2,
};

// A remote session identifier, as the gateway received it.
struct vxcli_control_session_id {
  uint8_t bytes[16];
};

struct vxcli_control_channel {
  uint32_t owner;                  // VXCLI_CONTROL_OWNER_*
  uint32_t phase;                  // VXCLI_CONTROL_PHASE_*
  uint64_t lease_expiry_ms;        // local owner only; 0 = never expires
  uint64_t config_generation;      // + 1 per committed configuration
  uint32_t fault_code;             // status of the last failed remote release
  vxcli_control_session_id owner_session;  // zero unless owner is remote
};

struct vxcli_control_remote_session {
  uint32_t active;
  vxcli_control_session_id id;
  uint32_t peer_key;
  char name[32];
  uint32_t timeout_ms;
  uint64_t expiry_ms;
};

struct vxcli_control_arbiter {
  vxcli_control_channel channels[VXCLI_CONTROL_SLOTS];
  vxcli_control_remote_session remote;
};

void vxcli_control_arbiter_init(vxcli_control_arbiter* arbiter);

// May `requester` perform an access of `mode` on `slot`? `session` is the
// remote requester's session (null for local requesters or when unknown).
int vxcli_control_check(const vxcli_control_arbiter* arbiter, uint32_t slot, uint32_t requester,
                        const vxcli_control_session_id* session, uint32_t mode);

// All listed slots or none. *conflict_slot is -1, or the slot that refused.
int vxcli_control_claim_local(vxcli_control_arbiter* arbiter, const uint32_t* slots,
                              size_t count, uint64_t now_ms, uint64_t lease_ms,
                              int* conflict_slot);
int vxcli_control_release_local(vxcli_control_arbiter* arbiter, const uint32_t* slots,
                                size_t count, int* conflict_slot);
// Drops every local lease whose expiry is at or before now.
void vxcli_control_expire_local(vxcli_control_arbiter* arbiter, uint64_t now_ms);

// The single remote session. `name` may be null (kept empty).
int vxcli_control_claim_remote_session(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                       const char* name, const vxcli_control_session_id* session,
                                       uint64_t now_ms, uint32_t timeout_ms);
int vxcli_control_heartbeat_remote_session(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                           const vxcli_control_session_id* session,
                                           uint64_t now_ms);
int vxcli_control_claim_remote_channel(vxcli_control_arbiter* arbiter, uint32_t slot,
                                       const vxcli_control_session_id* session);

// Releasing the remote session: begin marks its channels "neutralizing" and
// returns them as a bit mask; the caller neutralizes each one and completes it;
// finish forgets the session.
int vxcli_control_begin_remote_release(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                       const vxcli_control_session_id* session,
                                       uint32_t* slot_mask);
int vxcli_control_complete_remote_channel_release(vxcli_control_arbiter* arbiter, uint32_t slot,
                                                  const vxcli_control_session_id* session,
                                                  int succeeded, uint32_t fault_code);
void vxcli_control_finish_remote_release(vxcli_control_arbiter* arbiter);

// Expires local leases, then an overdue remote session: returns the mask of
// its channels, now "neutralizing" (0 when nothing expired remotely).
uint32_t vxcli_control_expire(vxcli_control_arbiter* arbiter, uint64_t now_ms);

// Forgets everything about one slot (owner none, phase "active"); used when
// the daemon closes the channel.
void vxcli_control_clear_slot(vxcli_control_arbiter* arbiter, uint32_t slot);
void vxcli_control_set_phase(vxcli_control_arbiter* arbiter, uint32_t slot, uint32_t phase);
void vxcli_control_commit_configuration(vxcli_control_arbiter* arbiter, uint32_t slot);

const char* vxcli_control_owner_name(uint32_t owner);
const char* vxcli_control_phase_name(uint32_t phase);
const char* vxcli_control_result_name(int result);
