#include "daemon/arbiter.h"

#include <cstring>

namespace {

bool same_session(const vxcli_control_session_id& a, const vxcli_control_session_id& b) {
  uint64_t wa[2];
  uint64_t wb[2];
  std::memcpy(wa, a.bytes, sizeof wa);
  std::memcpy(wb, b.bytes, sizeof wb);
  return wa[0] == wb[0] && wa[1] == wb[1];
}

bool phase_is_dead(uint32_t phase) {
  return phase == VXCLI_CONTROL_PHASE_FAULTED || phase == VXCLI_CONTROL_PHASE_DISCONNECTED;
}

void drop_owner(vxcli_control_channel& entry) {
  entry.owner = VXCLI_CONTROL_OWNER_NONE;
  entry.lease_expiry_ms = 0;
  entry.owner_session = {};
}

// Shared validation of a local slot list: the count, range, and no repeats.
bool valid_slot_list(const uint32_t* slots, size_t count) {
  if (slots == nullptr || count < 1 || count > VXCLI_CONTROL_SLOTS) return false;
  uint32_t seen = 0;
  for (size_t i = 0; i < count; ++i) {
    if (slots[i] >= VXCLI_CONTROL_SLOTS) return false;
    const uint32_t bit = 1u << slots[i];
    if (seen & bit) return false;
    seen |= bit;
  }
  return true;
}

// The remote session matches when it is active and both the identifier and
// the peer key agree.
bool is_current_remote(const vxcli_control_arbiter& arbiter, uint32_t peer_key,
                       const vxcli_control_session_id& session) {
  return arbiter.remote.active && arbiter.remote.peer_key == peer_key &&
         same_session(arbiter.remote.id, session);
}

uint32_t mark_session_neutralizing(vxcli_control_arbiter& arbiter,
                                   const vxcli_control_session_id& session) {
  uint32_t mask = 0;
  for (uint32_t slot = 0; slot < VXCLI_CONTROL_SLOTS; ++slot) {
    vxcli_control_channel& entry = arbiter.channels[slot];
    if (entry.owner == VXCLI_CONTROL_OWNER_REMOTE && same_session(entry.owner_session, session)) {
      entry.phase = VXCLI_CONTROL_PHASE_NEUTRALIZING;
      mask |= 1u << slot;
    }
  }
  return mask;
}

}  // namespace

void vxcli_control_arbiter_init(vxcli_control_arbiter* arbiter) {
  if (arbiter != nullptr) *arbiter = vxcli_control_arbiter{};
}

int vxcli_control_check(const vxcli_control_arbiter* arbiter, uint32_t slot, uint32_t requester,
                        const vxcli_control_session_id* session, uint32_t mode) {
  if (arbiter == nullptr || slot >= VXCLI_CONTROL_SLOTS ||
      (requester != VXCLI_CONTROL_REQUESTER_LOCAL && requester != VXCLI_CONTROL_REQUESTER_REMOTE) ||
      mode > VXCLI_CONTROL_ACCESS_CONTROL)
    return VXCLI_CONTROL_INVALID;
  const vxcli_control_channel& entry = arbiter->channels[slot];
  if (phase_is_dead(entry.phase)) return VXCLI_CONTROL_FAULTED;
  if (mode != VXCLI_CONTROL_ACCESS_CONTROL) return VXCLI_CONTROL_OK;
  if (entry.phase == VXCLI_CONTROL_PHASE_CLOSING || entry.phase == VXCLI_CONTROL_PHASE_NEUTRALIZING)
    return VXCLI_CONTROL_BUSY;
  switch (entry.owner) {
    case VXCLI_CONTROL_OWNER_NONE:
      return VXCLI_CONTROL_OK;
    case VXCLI_CONTROL_OWNER_LOCAL:
      return requester == VXCLI_CONTROL_REQUESTER_LOCAL ? VXCLI_CONTROL_OK : VXCLI_CONTROL_BUSY;
    case VXCLI_CONTROL_OWNER_REMOTE:
      return requester == VXCLI_CONTROL_REQUESTER_REMOTE && session != nullptr &&
                     same_session(entry.owner_session, *session)
                 ? VXCLI_CONTROL_OK
                 : VXCLI_CONTROL_BUSY;
    default:
      return VXCLI_CONTROL_BUSY;
  }
}

int vxcli_control_claim_local(vxcli_control_arbiter* arbiter, const uint32_t* slots,
                              size_t count, uint64_t now_ms, uint64_t lease_ms,
                              int* conflict_slot) {
  if (conflict_slot != nullptr) *conflict_slot = -1;
  if (arbiter == nullptr || !valid_slot_list(slots, count) || lease_ms == 0)
    return VXCLI_CONTROL_INVALID;
  // Nothing changes until every slot has been found claimable.
  for (size_t i = 0; i < count; ++i) {
    const vxcli_control_channel& entry = arbiter->channels[slots[i]];
    int refusal = VXCLI_CONTROL_OK;
    if (phase_is_dead(entry.phase))
      refusal = VXCLI_CONTROL_FAULTED;
    else if (entry.phase != VXCLI_CONTROL_PHASE_ACTIVE || entry.owner == VXCLI_CONTROL_OWNER_REMOTE)
      refusal = VXCLI_CONTROL_BUSY;
    if (refusal != VXCLI_CONTROL_OK) {
      if (conflict_slot != nullptr) *conflict_slot = static_cast<int>(slots[i]);
      return refusal;
    }
  }
  for (size_t i = 0; i < count; ++i) {
    vxcli_control_channel& entry = arbiter->channels[slots[i]];
    entry.owner = VXCLI_CONTROL_OWNER_LOCAL;
    entry.lease_expiry_ms = now_ms + lease_ms;
    entry.owner_session = {};
  }
  return VXCLI_CONTROL_OK;
}

int vxcli_control_release_local(vxcli_control_arbiter* arbiter, const uint32_t* slots,
                                size_t count, int* conflict_slot) {
  if (conflict_slot != nullptr) *conflict_slot = -1;
  if (arbiter == nullptr || !valid_slot_list(slots, count)) return VXCLI_CONTROL_INVALID;
  for (size_t i = 0; i < count; ++i) {
    if (arbiter->channels[slots[i]].owner != VXCLI_CONTROL_OWNER_LOCAL) {
      if (conflict_slot != nullptr) *conflict_slot = static_cast<int>(slots[i]);
      return VXCLI_CONTROL_NOT_OWNER;
    }
  }
  for (size_t i = 0; i < count; ++i) drop_owner(arbiter->channels[slots[i]]);
  return VXCLI_CONTROL_OK;
}

void vxcli_control_expire_local(vxcli_control_arbiter* arbiter, uint64_t now_ms) {
  if (arbiter == nullptr) return;
  for (vxcli_control_channel& entry : arbiter->channels) {
    if (entry.owner == VXCLI_CONTROL_OWNER_LOCAL && entry.lease_expiry_ms != 0 &&
        entry.lease_expiry_ms <= now_ms)
      drop_owner(entry);
  }
}

int vxcli_control_claim_remote_session(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                       const char* name, const vxcli_control_session_id* session,
                                       uint64_t now_ms, uint32_t timeout_ms) {
  if (arbiter == nullptr || peer_key == 0 || session == nullptr || timeout_ms == 0)
    return VXCLI_CONTROL_INVALID;
  vxcli_control_remote_session& remote = arbiter->remote;
  if (remote.active) {
    // Only one remote session at a time; its owner may claim again to renew.
    if (!is_current_remote(*arbiter, peer_key, *session)) return VXCLI_CONTROL_BUSY;
  } else {
    remote = vxcli_control_remote_session{};
    remote.active = 1;
    remote.id = *session;
    remote.peer_key = peer_key;
    if (name != nullptr) {
      std::strncpy(remote.name, name, sizeof remote.name - 1);
      remote.name[sizeof remote.name - 1] = '\0';
    }
  }
  remote.timeout_ms = timeout_ms;
  remote.expiry_ms = now_ms + timeout_ms;
  return VXCLI_CONTROL_OK;
}

int vxcli_control_heartbeat_remote_session(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                           const vxcli_control_session_id* session,
                                           uint64_t now_ms) {
  if (arbiter == nullptr || peer_key == 0 || session == nullptr) return VXCLI_CONTROL_INVALID;
  if (!is_current_remote(*arbiter, peer_key, *session)) return VXCLI_CONTROL_STALE_SESSION;
  arbiter->remote.expiry_ms = now_ms + arbiter->remote.timeout_ms;
  return VXCLI_CONTROL_OK;
}

int vxcli_control_claim_remote_channel(vxcli_control_arbiter* arbiter, uint32_t slot,
                                       const vxcli_control_session_id* session) {
  if (arbiter == nullptr || slot >= VXCLI_CONTROL_SLOTS || session == nullptr)
    return VXCLI_CONTROL_INVALID;
  if (!arbiter->remote.active || !same_session(arbiter->remote.id, *session))
    return VXCLI_CONTROL_STALE_SESSION;
  const int allowed = vxcli_control_check(arbiter, slot, VXCLI_CONTROL_REQUESTER_REMOTE, session,
                                          VXCLI_CONTROL_ACCESS_CONTROL);
  if (allowed != VXCLI_CONTROL_OK) return allowed;
  vxcli_control_channel& entry = arbiter->channels[slot];
  // The check passed, so an existing owner can only be this very session.
  if (entry.owner != VXCLI_CONTROL_OWNER_NONE) return VXCLI_CONTROL_OK;
  entry.owner = VXCLI_CONTROL_OWNER_REMOTE;
  entry.lease_expiry_ms = 0;
  entry.owner_session = *session;
  return VXCLI_CONTROL_OK;
}

int vxcli_control_begin_remote_release(vxcli_control_arbiter* arbiter, uint32_t peer_key,
                                       const vxcli_control_session_id* session,
                                       uint32_t* slot_mask) {
  if (slot_mask != nullptr) *slot_mask = 0;
  if (arbiter == nullptr || peer_key == 0 || session == nullptr) return VXCLI_CONTROL_INVALID;
  if (!is_current_remote(*arbiter, peer_key, *session)) return VXCLI_CONTROL_STALE_SESSION;
  const uint32_t mask = mark_session_neutralizing(*arbiter, *session);
  if (slot_mask != nullptr) *slot_mask = mask;
  return VXCLI_CONTROL_OK;
}

int vxcli_control_complete_remote_channel_release(vxcli_control_arbiter* arbiter, uint32_t slot,
                                                  const vxcli_control_session_id* session,
                                                  int succeeded, uint32_t fault_code) {
  if (arbiter == nullptr || slot >= VXCLI_CONTROL_SLOTS || session == nullptr)
    return VXCLI_CONTROL_INVALID;
  vxcli_control_channel& entry = arbiter->channels[slot];
  if (entry.owner != VXCLI_CONTROL_OWNER_REMOTE || !same_session(entry.owner_session, *session))
    return VXCLI_CONTROL_NOT_OWNER;
  entry.fault_code = fault_code;
  if (!succeeded) {
    // The remote owner stays recorded so that nobody controls a channel in an
    // unknown state until it is configured again.
    entry.phase = VXCLI_CONTROL_PHASE_FAULTED;
    return VXCLI_CONTROL_FAULTED;
  }
  drop_owner(entry);
  entry.phase = VXCLI_CONTROL_PHASE_ACTIVE;
  return VXCLI_CONTROL_OK;
}

void vxcli_control_finish_remote_release(vxcli_control_arbiter* arbiter) {
  if (arbiter != nullptr) arbiter->remote = vxcli_control_remote_session{};
}

uint32_t vxcli_control_expire(vxcli_control_arbiter* arbiter, uint64_t now_ms) {
  if (arbiter == nullptr) return 0;
  vxcli_control_expire_local(arbiter, now_ms);
  if (!arbiter->remote.active || arbiter->remote.expiry_ms > now_ms) return 0;
  return mark_session_neutralizing(*arbiter, arbiter->remote.id);
}

void vxcli_control_clear_slot(vxcli_control_arbiter* arbiter, uint32_t slot) {
  if (arbiter != nullptr && slot < VXCLI_CONTROL_SLOTS)
    arbiter->channels[slot] = vxcli_control_channel{};
}

void vxcli_control_set_phase(vxcli_control_arbiter* arbiter, uint32_t slot, uint32_t phase) {
  if (arbiter != nullptr && slot < VXCLI_CONTROL_SLOTS) arbiter->channels[slot].phase = phase;
}

void vxcli_control_commit_configuration(vxcli_control_arbiter* arbiter, uint32_t slot) {
  if (arbiter == nullptr || slot >= VXCLI_CONTROL_SLOTS) return;
  vxcli_control_channel& entry = arbiter->channels[slot];
  entry.config_generation += 1;
  entry.fault_code = 0;
  entry.phase = VXCLI_CONTROL_PHASE_ACTIVE;
}

const char* vxcli_control_owner_name(uint32_t owner) {
  switch (owner) {
    case VXCLI_CONTROL_OWNER_NONE: return "none";
    case VXCLI_CONTROL_OWNER_LOCAL: return "local";
    case VXCLI_CONTROL_OWNER_REMOTE: return "remote";
    default: return "unknown";
  }
}

const char* vxcli_control_phase_name(uint32_t phase) {
  switch (phase) {
    case VXCLI_CONTROL_PHASE_ACTIVE: return "active";
    case VXCLI_CONTROL_PHASE_CONFIGURING: return "configuring";
    case VXCLI_CONTROL_PHASE_CLOSING: return "closing";
    case VXCLI_CONTROL_PHASE_NEUTRALIZING: return "neutralizing";
    case VXCLI_CONTROL_PHASE_FAULTED: return "faulted";
    case VXCLI_CONTROL_PHASE_DISCONNECTED: return "disconnected";
    default: return "unknown";
  }
}

const char* vxcli_control_result_name(int result) {
  switch (result) {
    case VXCLI_CONTROL_OK: return "ok";
    case VXCLI_CONTROL_BUSY: return "busy";
    case VXCLI_CONTROL_INVALID: return "invalid";
    case VXCLI_CONTROL_STALE_SESSION: return "stale_session";
    case VXCLI_CONTROL_NOT_OWNER: return "not_owner";
    case VXCLI_CONTROL_FAULTED: return "faulted";
    default: return "unknown";
  }
}
