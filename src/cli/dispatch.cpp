// Dispatch: local-first commands, then the daemon, then standalone execution.
#include "cli/dispatch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <unistd.h>

#include "channel/channel.h"
#include "cli/catalog.h"
#include "cli/hooks.h"
#include "cli/output.h"
#include "daemon/client.h"
#include "message/message.h"
#include "message/route.h"
#include "message/txtask.h"
#include "database/commands.h"
#include "database/ldf.h"
#include "diag/commands.h"
#include "diag/uds_client.h"
#include "logging/commands.h"

namespace {

bool is(const char* word, const char* text) { return word && text && strcmp(word, text) == 0; }

bool one_of(const char* word, std::initializer_list<const char*> options) {
  for (const char* o : options)
    if (is(word, o)) return true;
  return false;
}

// Subsystems that this build does not carry answer one clear error.
int not_available(const char* w1, const char* w2 = nullptr, const char* w3 = nullptr) {
  vxcli_print_error("%s%s%s%s%s is not available in this build", w1, w2 ? " " : "", w2 ? w2 : "",
                    w3 ? " " : "", w3 ? w3 : "");
  return 1;
}

int rest_count(int count, int used) { return count > used ? count - used : 0; }

// The ldf inspection and schedule commands.
int ldf_command(const char* action, const char* sub, int count, char** words) {
  struct Route {
    const char* action;
    const char* sub;
    vxcli_handler handler;
  };
  static const Route routes[] = {
      {"info", nullptr, vxcli_ldf_info_command},
      {"node", "list", vxcli_ldf_node_list_command},
      {"node", "show", vxcli_ldf_node_show_command},
      {"frame", "list", vxcli_ldf_frame_list_command},
      {"frame", "show", vxcli_ldf_frame_show_command},
      {"signal", "list", vxcli_ldf_signal_list_command},
      {"signal", "show", vxcli_ldf_signal_show_command},
      {"schedule", "list", vxcli_ldf_schedule_list_command},
      {"schedule", "show", vxcli_ldf_schedule_show_command},
      {"schedule", "activate", vxcli_ldf_schedule_activate_command},
      {"schedule", "deactivate", vxcli_ldf_schedule_deactivate_command},
  };
  for (const Route& r : routes)
    if (is(action, r.action) && ((!sub && !r.sub) || is(sub, r.sub))) return r.handler(count, words);
  return not_available("ldf", action, sub);
}

// Offers the line to the daemon. Returns -1 when no daemon served it.
int forward_to_daemon(int forward_count, char** forward_words) {
  const size_t size = 0xA00000;
  char* response = static_cast<char*>(malloc(size));
  if (!response) return -1;
  response[0] = 0;
  int rc = vxcli_daemon_send_argv(forward_count, forward_words, g_config.format, response, size);
  if (rc == 0) {
    if (strncmp(response, "ERROR: unknown command", 22) == 0) {
      free(response);
      return -1;
    }
    fputs(response, stdout);
    fflush(stdout);
    int status = (strncmp(response, "ERROR:", 6) == 0 || strstr(response, "\"status\":\"error\"")) ? 1 : 0;
    free(response);
    return status;
  }
  free(response);
  if (rc == -2) {
    vxcli_print_error("Daemon IPC failed: %s. Standalone fallback refused while daemon PID is active",
                      vxcli_daemon_last_ipc_error());
    return 1;
  }
  return -1;
}

// Logging and replay without a daemon: in this process, in the foreground.
int local_logging_or_replay(int count, char** words) {
  const char* w1 = words[0];
  const char* w2 = count > 1 ? words[1] : nullptr;
  char** after2 = words + (count > 2 ? 2 : count);
  int n2 = rest_count(count, 2);
  if (is(w1, "logging")) {
    if (!w2) {
      vxcli_print_error("logging requires an action");
      return 1;
    }
    if (is(w2, "start")) return vxcli_logging_start_command(n2, after2);
    if (is(w2, "stop")) return vxcli_logging_stop_command(n2, after2);
    if (is(w2, "status")) return vxcli_logging_status_command(n2, after2);
    vxcli_print_error("unknown logging action '%s'", w2);
    return 1;
  }
  if (is(w1, "replay")) {
    if (!w2) {
      vxcli_print_error("replay requires an action");
      return 1;
    }
    if (is(w2, "start")) return vxcli_replay_file(n2, after2);
    if (is(w2, "stop")) {
      vxcli_print_error("replay stop requires daemon mode; standalone replay is stopped with Ctrl+C");
      return 1;
    }
    if (is(w2, "status")) return vxcli_replay_status_command(n2, after2);
    vxcli_print_error("unknown replay action '%s'", w2);
    return 1;
  }
  return 1;
}

// A running daemon records and replays on its own slots. It does not share
// this process's working directory, so file paths go to it absolute.
int logging_or_replay(int count, char** words) {
  std::vector<std::string> texts;
  texts.reserve((size_t)count);
  char cwd[4096];
  bool have_cwd = getcwd(cwd, sizeof cwd) != nullptr;
  for (int i = 0; i < count; i++) {
    std::string word = words[i];
    bool next_is_path = (word == "--output" || word == "--file") && i + 1 < count;
    texts.push_back(word);
    size_t eq = word.find('=');
    std::string name = eq == std::string::npos ? word : word.substr(0, eq);
    if (have_cwd && eq != std::string::npos && (name == "--output" || name == "--file") &&
        eq + 1 < word.size() && word[eq + 1] != '/')
      texts.back() = name + "=" + cwd + "/" + word.substr(eq + 1);
    if (next_is_path) {
      std::string value = words[++i];
      texts.push_back(have_cwd && !value.empty() && value[0] != '/' ? std::string(cwd) + "/" + value : value);
    }
  }
  std::vector<char*> forward;
  forward.reserve(texts.size() + 1);
  for (auto& t : texts) forward.push_back(t.data());
  forward.push_back(nullptr);
  int rc = forward_to_daemon((int)texts.size(), forward.data());
  if (rc >= 0) return rc;
  return local_logging_or_replay(count, words);
}

int local_first(int count, char** words, bool* handled) {
  *handled = true;
  const char* w1 = words[0];
  const char* w2 = count > 1 ? words[1] : nullptr;
  const char* w3 = count > 2 ? words[2] : nullptr;
  char** after2 = words + (count > 2 ? 2 : count);
  int n2 = rest_count(count, 2);

  if (is(w1, "daemon")) {
    if (!w2) {
      vxcli_print_error("daemon requires an action");
      return 1;
    }
    if (is(w2, "start")) return vxcli_daemon_start(n2, after2);
    if (is(w2, "stop")) return vxcli_daemon_stop();
    if (is(w2, "restart")) return vxcli_daemon_restart();
    if (is(w2, "status")) return vxcli_daemon_status();
    vxcli_print_error("unknown daemon action '%s'", w2);
    return 1;
  }
  if (is(w1, "convert")) return vxcli_convert_command(count - 1, words + 1);
  if (is(w1, "logging") || is(w1, "replay")) return logging_or_replay(count, words);
  if (is(w1, "checksum")) return not_available("checksum");
  if (one_of(w1, {"database", "dbc", "ldf", "a2l"})) return dispatch_database_command(w1, w2, n2, after2);
  if (is(w1, "version")) {
    print_version();
    return 0;
  }
  if (is(w1, "update")) return not_available("update");
  if (is(w1, "ai")) {
    if (!w2) {
      vxcli_print_error("ai requires an action");
      return 1;
    }
    if (one_of(w2, {"setup", "status"})) return not_available("ai", w2);
    vxcli_print_error("unknown ai action '%s'", w2);
    return 1;
  }
  if (is(w1, "bench")) {
    if (!w2) {
      vxcli_print_error("bench requires an action");
      return 1;
    }
    if (one_of(w2, {"init", "show", "validate", "import"})) return not_available("bench", w2);
    vxcli_print_error("unknown bench action '%s'", w2);
    return 1;
  }
  if (is(w1, "gateway")) {
    if (!w2) {
      vxcli_print_error("gateway requires an action");
      return 1;
    }
    if (one_of(w2, {"start", "stop", "status"})) return not_available("gateway", w2);
    vxcli_print_error("unknown gateway action '%s'", w2);
    return 1;
  }
  if (is(w1, "device") && one_of(w2, {"reset", "update"})) return not_available("device", w2);
  if (is(w1, "channel") && is(w2, "enumerate")) return vxcli_channel_enumerate(n2, after2);
  if (is(w1, "channel") && is(w2, "autoset")) {
    if (vxcli_daemon_is_running()) {
      vxcli_print_error("channel autoset requires exclusive hardware access; stop the daemon first");
      return 1;
    }
    return not_available("channel", "autoset");
  }
  if (is(w1, "uds") && is(w2, "discover")) {
    if (vxcli_daemon_is_running()) vxcli_uds_session_load_from_daemon();
    return vxcli_uds_discover_command(count - 2, words + 2);
  }
  if (is(w1, "doctor")) return not_available("doctor");
  if (is(w1, "web")) {
    if (!one_of(w2, {"start", "stop", "status"})) {
      vxcli_print_error("web requires start, stop, or status");
      return 1;
    }
    if (is(w2, "start") && !vxcli_daemon_is_running() && vxcli_daemon_start_quiet(nullptr) != 0) {
      vxcli_print_error("failed to auto-start daemon for Web service");
      return 1;
    }
    *handled = false;  // forwarded like any other line
    return 0;
  }
  (void)w3;
  *handled = false;
  return 0;
}

int standalone(int count, char** words) {
  const char* w1 = words[0];
  const char* w2 = count > 1 ? words[1] : nullptr;
  const char* w3 = count > 2 ? words[2] : nullptr;
  char** after2 = words + (count > 2 ? 2 : count);
  int n2 = rest_count(count, 2);

  if (is(w1, "web")) {
    vxcli_print_error("web %s requires the local daemon", w2 ? w2 : "");
    return 1;
  }
  if (is(w1, "channel")) {
    if (!w2) {
      vxcli_print_error("channel requires an action");
      return 1;
    }
    if (is(w2, "open")) {
      vxcli_print_error("channel open requires daemon mode; start daemon first");
      return 1;
    }
    if (is(w2, "close")) return vxcli_channel_close_command(n2, after2);
    if (is(w2, "info")) return vxcli_channel_info_command(n2, after2);
    if (is(w2, "status")) return vxcli_channel_status_command(n2, after2);
    if (is(w2, "config")) {
      vxcli_print_error("channel config was removed; use can config get/set or lin config get/set");
      return 1;
    }
    if (one_of(w2, {"power", "recover", "auto-recover", "claim", "release"})) {
      vxcli_print_error("channel %s requires daemon mode; start daemon first", w2);
      return 1;
    }
    vxcli_print_error("unknown channel action '%s'", w2);
    return 1;
  }
  if (is(w1, "can") || is(w1, "lin")) {
    if (!w2) {
      vxcli_print_error("%s requires an action", w1);
      return 1;
    }
    vxcli_print_error("%s %s requires daemon mode; start daemon and open the channel first", w1, w2);
    return 1;
  }
  if (is(w1, "device")) {
    if (!w2) {
      vxcli_print_error("device requires an action");
      return 1;
    }
    vxcli_print_error("unknown device action '%s'", w2);
    return 1;
  }
  if (is(w1, "message")) {
    if (!w2) {
      vxcli_print_error("message requires an action");
      return 1;
    }
    if (is(w2, "send")) return vxcli_message_send_command(n2, after2);
    if (is(w2, "recv")) return vxcli_message_recv_command(n2, after2);
    vxcli_print_error("unknown message action '%s'", w2);
    return 1;
  }
  if (is(w1, "modbus")) {
    const char* sub = one_of(w2, {"file-record", "poll", "fifo", "resource", "command", "value"}) ? w3 : nullptr;
    if (one_of(w2, {"poll", "value"})) {
      vxcli_print_error("modbus %s requires daemon mode; start daemon first", w2);
      return 1;
    }
    int rc = not_available("modbus", w2, sub);
    fflush(stdout);
    fflush(stderr);
    return rc;
  }
  if (is(w1, "txtask") || is(w1, "route")) {
    if (!w2) {
      vxcli_print_error("%s requires an action", w1);
      return 1;
    }
    if (is(w1, "txtask")) {
      if (is(w2, "add")) return vxcli_txtask_add(n2, after2);
      if (is(w2, "remove")) return vxcli_txtask_remove(n2, after2);
      if (is(w2, "list")) return vxcli_txtask_list(n2, after2);
    } else {
      if (is(w2, "add")) return vxcli_route_add(n2, after2);
      if (is(w2, "remove")) return vxcli_route_remove(n2, after2);
      if (is(w2, "list")) return vxcli_route_list(n2, after2);
    }
    vxcli_print_error("unknown %s action '%s'", w1, w2);
    return 1;
  }
  if (is(w1, "offline")) {
    if (!w2) {
      vxcli_print_error("offline requires an action");
      return 1;
    }
    if (is(w2, "logging") || is(w2, "replay")) {
      if (!one_of(w3, {"start", "stop", "status"})) {
        vxcli_print_error("offline %s requires start|stop|status", w2);
        return 1;
      }
      return not_available("offline", w2, w3);
    }
    if (is(w2, "config")) {
      if (!one_of(w3, {"save", "load", "clear"})) {
        vxcli_print_error("offline config requires save|load|clear");
        return 1;
      }
      return not_available("offline", w2, w3);
    }
    vxcli_print_error("unknown offline action '%s' (logging|replay|config)", w2);
    return 1;
  }
  if (is(w1, "isotp")) {
    if (!w2) {
      vxcli_print_error("isotp requires an action");
      return 1;
    }
    if (is(w2, "send")) return vxcli_isotp_send_command(count - 2, words + 2);
    if (is(w2, "recv")) return vxcli_isotp_recv_command(count - 2, words + 2);
    if (is(w2, "ecu-sim")) return vxcli_isotp_ecu_sim_command(count - 2, words + 2);
    vxcli_print_error("unknown isotp action '%s'", w2);
    return 1;
  }
  if (is(w1, "uds")) {
    if (!w2) {
      vxcli_print_error("uds requires an action");
      return 1;
    }
    if (is(w2, "config")) {
      if (!one_of(w3, {"get", "set"})) {
        vxcli_print_error("uds config requires get|set");
        return 1;
      }
      vxcli_print_error("uds config %s requires daemon mode; start daemon first", w3);
      return 1;
    }
    // Commands the daemon left to us still use the session stored there.
    if (vxcli_daemon_is_running()) vxcli_uds_session_load_from_daemon();
    if (is(w2, "request")) return vxcli_uds_request_command(count - 2, words + 2);
    if (is(w2, "load")) return vxcli_uds_load_command(count - 2, words + 2);
    if (is(w2, "save")) return vxcli_uds_save_command(count - 2, words + 2);
    if (is(w2, "list")) return vxcli_uds_list_command(count - 2, words + 2);
    if (is(w2, "unlock")) return vxcli_uds_unlock_command(count - 2, words + 2);
    if (is(w2, "download")) return vxcli_uds_download_command(count - 2, words + 2);
    if (is(w2, "dtc")) return vxcli_uds_dtc_command(count - 2, words + 2);
    if (is(w2, "present")) {
      if (is(w3, "send")) return vxcli_uds_present_send_command(count - 3, words + 3);
      if (one_of(w3, {"start", "stop", "status"})) {
        vxcli_print_error("uds present %s requires daemon mode; start daemon first", w3);
        return 1;
      }
      vxcli_print_error("uds present requires send|start|stop|status");
      return 1;
    }
    vxcli_print_error("unknown uds action '%s'", w2);
    return 1;
  }
  if (is(w1, "xcp")) {
    vxcli_print_error("xcp %s requires daemon mode; start daemon and configure an open channel first",
                      w2 ? w2 : "");
    return 1;
  }
  vxcli_print_error("unknown category '%s'", w1);
  if (g_config.format == VXCLI_FORMAT_TEXT) vxcli_help_print_root();
  (void)after2;
  (void)n2;
  return 1;
}

}  // namespace

int dispatch_command(int count, char** words, int forward_count, char** forward_words) {
  if (count < 1 || !words) {
    vxcli_help_print_root();
    return 1;
  }
  bool handled = false;
  int rc = local_first(count, words, &handled);
  if (handled) return rc;
  rc = forward_to_daemon(forward_count, forward_words);
  if (rc >= 0) return rc;
  return standalone(count, words);
}

int dispatch_database_command(const char* category, const char* action, int count, char** words) {
  if (!action) {
    vxcli_print_error("%s requires an action", category);
    return 1;
  }
  const char* next = count > 0 ? words[0] : nullptr;
  char** after = words + (count > 0 ? 1 : 0);
  int n = rest_count(count, 1);
  if (is(category, "database")) {
    if (is(action, "load")) return vxcli_database_load_command(count, words);
    if (is(action, "unload")) return vxcli_database_unload_command(count, words);
    if (is(action, "list")) return vxcli_database_list_command(count, words);
    if (is(action, "info")) return vxcli_database_info_command(count, words);
    if (is(action, "validate")) return vxcli_database_validate_command(count, words);
  } else if (is(category, "dbc")) {
    if (is(action, "load")) return vxcli_dbc_load_command(count, words);
    if (is(action, "decode")) return vxcli_dbc_decode_command(count, words);
    if (is(action, "encode")) return vxcli_dbc_encode_command(count, words);
    if (is(action, "message") || is(action, "signal")) {
      bool message = is(action, "message");
      if (is(next, "list"))
        return message ? vxcli_dbc_message_list_command(n, after) : vxcli_dbc_signal_list_command(n, after);
      if (is(next, "show"))
        return message ? vxcli_dbc_message_show_command(n, after) : vxcli_dbc_signal_show_command(n, after);
      vxcli_print_error("dbc %s requires list|show", action);
      return 1;
    }
  } else if (is(category, "ldf")) {
    if (is(action, "load")) return vxcli_ldf_load_command(count, words);
    if (is(action, "info")) return ldf_command("info", nullptr, count, words);
    if (one_of(action, {"node", "frame", "signal", "schedule"})) {
      if (!next) {
        vxcli_print_error("ldf %s requires an action", action);
        return 1;
      }
      bool schedule = is(action, "schedule");
      if (one_of(next, {"list", "show"}) || (schedule && one_of(next, {"activate", "deactivate"})))
        return ldf_command(action, next, n, after);
      vxcli_print_error("unknown ldf %s action '%s'", action, next);
      return 1;
    }
  } else if (is(category, "a2l")) {
    if (is(action, "load")) return vxcli_a2l_load_command(count, words);
    if (is(action, "info")) return not_available("a2l", action);
    if (is(action, "measurement") || is(action, "characteristic")) {
      if (!next) {
        vxcli_print_error("a2l %s requires list|show", action);
        return 1;
      }
      if (one_of(next, {"list", "show"})) return not_available("a2l", action, next);
      vxcli_print_error("unknown a2l %s action '%s'", action, next);
      return 1;
    }
  }
  vxcli_print_error("unknown %s action '%s'", category, action);
  return 1;
}
