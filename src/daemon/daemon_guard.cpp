// Who may change a daemon channel: the command guard in front of every family,
// and the explicit local leases of "channel claim" / "channel release".
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "cli/output.h"
#include "daemon/arbiter.h"
#include "daemon/daemon_state.h"

namespace {

constexpr uint64_t kDefaultLeaseMs = 300000;
constexpr uint64_t kMinLeaseMs = 1000;
constexpr uint64_t kMaxLeaseMs = 86400000;

bool any_of(const char* word, std::initializer_list<const char*> words) {
  for (const char* w : words)
    if (daemon_is(word, w)) return true;
  return false;
}

// Every value of --name (both "--name=v" and "--name v"), in order.
template <typename F>
void each_option(char** argv, int argc, const char* name, F f) {
  size_t n = strlen(name);
  for (int i = 0; i < argc; i++) {
    const char* a = argv[i];
    if (!a || strncmp(a, "--", 2) != 0 || strncmp(a + 2, name, n) != 0) continue;
    if (a[2 + n] == '=') f(a + 3 + n);
    else if (a[2 + n] == 0 && i + 1 < argc && argv[i + 1] && strncmp(argv[i + 1], "--", 2) != 0) f(argv[++i]);
  }
}

int add_unique(int* slots, int n, int slot) {
  for (int k = 0; k < n; k++)
    if (slots[k] == slot) return n;
  if (n < VXCLI_DAEMON_SLOTS) slots[n++] = slot;
  return n;
}

// Slots named by the selectors of one option value ("0,10356/1").
int collect_list(const char* list, int* slots, int n) {
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", list);
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece; piece = strtok_r(nullptr, ",", &save)) {
    int slot = daemon_resolve_ch(piece);
    if (slot >= 0) n = add_unique(slots, n, slot);
  }
  return n;
}

int named_slots(char** argv, int argc, int* slots) {
  int n = 0;
  for (const char* name : {"channel", "src", "dst"})
    each_option(argv, argc, name, [&](const char* value) { n = collect_list(value, slots, n); });
  return n;
}

bool succeeded(const char* answer) {
  return answer && strncmp(answer, "ERROR:", 6) != 0 && !strstr(answer, "\"status\":\"error\"");
}

}  // namespace

uint64_t daemon_arbiter_now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint32_t ms = static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
  return ms;
}

int daemon_local_operation(char** argv, int argc) {
  const char* a = argc > 0 ? argv[0] : nullptr;
  const char* b = argc > 1 ? argv[1] : nullptr;
  const char* c = argc > 2 ? argv[2] : nullptr;
  if (c && strncmp(c, "--", 2) == 0) c = nullptr;
  // Only families that act on bus channels can need control of one; anything
  // else (daemon, modbus, web, databases, unknown words) passes unguarded.
  if (!any_of(a, {"channel", "can", "lin", "message", "txtask", "route", "isotp", "uds", "xcp", "logging", "replay",
                  "signal"}))
    return 0;
  // Lease handling checks the arbiter itself.
  if (daemon_is(a, "channel") && any_of(b, {"claim", "release"})) return 0;
  if (any_of(b, {"info", "status", "list", "show", "get", "stats"})) return 0;
  if (any_of(c, {"status", "list", "show", "get"})) return 0;
  if (daemon_is(a, "message") && daemon_is(b, "recv")) return 0;
  // Traffic on a channel leaves its configuration alone.
  if (daemon_is(a, "message") && daemon_is(b, "send")) return 1;
  if (daemon_is(a, "isotp") && any_of(b, {"send", "recv"})) return 1;
  if (daemon_is(a, "uds") && any_of(b, {"request", "unlock"})) return 1;
  return 2;
}

int daemon_collect_command_slots(char** argv, int argc, int* slots) {
  int n = named_slots(argv, argc, slots);
  if (n > 0) return n;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++)
    if (g_daemon_slots[i].open) slots[n++] = i;
  return n;
}

const char* daemon_guard_local_control(char** argv, int argc, char* message, size_t size) {
  if (daemon_local_operation(argv, argc) != 2) return nullptr;
  vxcli_control_expire_local(&g_daemon_arbiter, daemon_arbiter_now());
  int slots[VXCLI_DAEMON_SLOTS];
  int n = 0;
  if (argc > 1 && daemon_is(argv[0], "channel") && daemon_is(argv[1], "open")) {
    // Only a channel that is already open can be under someone's control.
    n = named_slots(argv, argc, slots);
  } else {
    n = daemon_collect_command_slots(argv, argc, slots);
  }
  for (int k = 0; k < n; k++) {
    uint32_t slot = static_cast<uint32_t>(slots[k]);
    if (vxcli_control_check(&g_daemon_arbiter, slot, VXCLI_CONTROL_REQUESTER_LOCAL, nullptr, 2) ==
        VXCLI_CONTROL_OK)
      continue;
    const vxcli_control_channel& c = g_daemon_arbiter.channels[slot];
    snprintf(message, size, "ERROR: channel %d control is busy (owner=%s, phase=%s)\n", slots[k],
             vxcli_control_owner_name(c.owner), vxcli_control_phase_name(c.phase));
    return message;
  }
  return nullptr;
}

void daemon_commit_local_result(char** argv, int argc, const char* answer) {
  if (!succeeded(answer) || daemon_local_operation(argv, argc) != 2) return;
  // Opening commits by itself; a closed slot has nothing left to commit.
  if (argc > 1 && daemon_is(argv[0], "channel") && any_of(argv[1], {"open", "close"})) return;
  int slots[VXCLI_DAEMON_SLOTS];
  int n = daemon_collect_command_slots(argv, argc, slots);
  for (int k = 0; k < n; k++)
    if (g_daemon_slots[slots[k]].open && !daemon_slot_disconnected(slots[k]))
      vxcli_control_commit_configuration(&g_daemon_arbiter, static_cast<uint32_t>(slots[k]));
}

const char* daemon_answer_claim(const Words& w, Out* out) {
  const bool claim = daemon_is(w.word(1), "claim");
  const char* action = claim ? "claim" : "release";
  const char* list = w.option("channel");
  if (!list || !*list) return "ERROR: --channel is required\n";
  uint64_t lease = kDefaultLeaseMs;
  if (const char* text = w.option("timeout")) {
    if (!claim) return "ERROR: --timeout is valid only for channel claim\n";
    char* end = nullptr;
    unsigned long long v = strtoull(text, &end, 10);
    if (!*text || *end || text[0] == '-' || v < kMinLeaseMs || v > kMaxLeaseMs)
      return "ERROR: --timeout must be 1000..86400000 ms\n";
    lease = v;
  }
  uint32_t slots[VXCLI_DAEMON_SLOTS];
  int n = 0;
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", list);
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece; piece = strtok_r(nullptr, ",", &save)) {
    int slot = daemon_resolve_ch(piece);
    if (slot < 0) {
      daemon_put(out, "ERROR: channel %s is not open\n", piece);
      return out->data;
    }
    if (n >= VXCLI_DAEMON_SLOTS) return "ERROR: too many channels\n";
    slots[n++] = static_cast<uint32_t>(slot);
  }
  if (n == 0) return "ERROR: --channel is required\n";
  uint64_t now = daemon_arbiter_now();
  vxcli_control_expire_local(&g_daemon_arbiter, now);
  int conflict = -1;
  int result = claim ? vxcli_control_claim_local(&g_daemon_arbiter, slots, static_cast<uint32_t>(n), now, lease,
                                                 &conflict)
                     : vxcli_control_release_local(&g_daemon_arbiter, slots, static_cast<uint32_t>(n), &conflict);
  if (result != VXCLI_CONTROL_OK) {
    if (conflict >= 0)
      daemon_put(out, "ERROR: channel %s failed: %s at slot %d\n", action, vxcli_control_result_name(result),
                 conflict);
    else
      daemon_put(out, "ERROR: channel %s failed: %s\n", action, vxcli_control_result_name(result));
    return out->data;
  }
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"action\":\"channel_%s\",\"owner\":\"%s\",\"timeout_ms\":%u,\"channels\":[",
               action, claim ? "local" : "none", claim ? static_cast<unsigned>(lease) : 0u);
    for (int k = 0; k < n; k++) daemon_put(out, "%s%u", k ? "," : "", slots[k]);
    daemon_put(out, "]}\n");
  } else {
    daemon_put(out, "OK: %s %d channel(s)%s\n", claim ? "claimed" : "released", n, claim ? " for local control" : "");
  }
  return out->data;
}
