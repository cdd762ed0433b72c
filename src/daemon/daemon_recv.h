// "message recv" in the daemon: prepared on the main loop under the command
// lock (options, channel selection, cursors), then run on a receive thread that
// touches nothing but its own broker cursors.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "daemon/daemon_state.h"
#include "daemon/rx_broker.h"
#include "json/json.h"

inline constexpr int VXCLI_DAEMON_MAX_RECEIVERS = 16;

struct DbcLoadedFile;

struct daemon_recv_job {
  uint32_t format;  // VXCLI_FORMAT_*
  bool json;        // the request asked for JSON (error envelope)
  int channels;
  int slots[VXCLI_DAEMON_SLOTS];
  vxcli_rx_cursor cursors[VXCLI_DAEMON_SLOTS];
  long count;
  uint64_t duration_ms;
  char duration_text[32];
  bool filter;
  uint32_t filter_id;
  uint32_t filter_mask;
  bool decode;
  const DbcLoadedFile* database;
  int peer_fd;  // the client's connection, watched so a vanished client ends the capture; -1 none
};

// Running receive threads, and the flag that ends them at shutdown.
extern std::atomic<int> g_daemon_async_readers;
extern std::atomic<bool> g_daemon_recv_stop;

// True when the request words are "message recv".
bool daemon_is_recv(const Words& w);
// Validates the options and opens one cursor per selected channel. Returns a new
// job, or null with the error answer in *error (possibly out->data).
daemon_recv_job* daemon_recv_prepare(const Words& w, Out* out, const char** error);
// Captures into answer (a writer limited to the daemon buffer size) and closes the
// job's cursors; the answer is complete text, a JSON document, or an "ERROR:" line.
void daemon_recv_run(daemon_recv_job* job, vxcli_json_writer* answer);
void daemon_recv_free(daemon_recv_job* job);
