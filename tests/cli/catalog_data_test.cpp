// The catalogue's shape: the public command list in its fixed order, the
// metadata classes of every operation, and the option names that handlers
// read (validation refuses anything that is not in a command's table).
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/catalog.h"

namespace {

// The published command list, groups marked.
const char* kCommandList =
    "help; version; doctor; ai setup; ai status; bench init; bench show; bench validate; "
    "bench import; update; channel enumerate; device reset; device update; channel info; "
    "channel open; channel close; channel claim; channel release; channel status; channel power "
    "(group); channel power status; channel power on; channel power off; channel power cycle; "
    "can config (group); can config get; can config set; lin config (group); lin config get; "
    "lin config set; lin response (group); lin response get; lin response set; lin response "
    "list; lin response remove; lin response clear; lin schedule (group); lin schedule list; "
    "lin schedule show; lin schedule add; lin schedule remove; lin schedule clear; lin schedule "
    "activate; lin schedule deactivate; channel autoset; channel recover; channel auto-recover "
    "(group); channel auto-recover on; channel auto-recover off; channel auto-recover status; "
    "channel reset-defaults; message send; message recv; txtask add; txtask remove; txtask "
    "list; route add; route remove; route list; isotp send; isotp recv; isotp ecu-sim; uds "
    "discover; uds config (group); uds config get; uds config set; uds request; uds load; uds "
    "save; uds list; uds unlock; uds download; uds present (group); uds present send; uds "
    "present start; uds present stop; uds present status; uds dtc (group); uds dtc active; uds "
    "dtc count; uds dtc supported; uds dtc snapshot-id; uds dtc snapshot; uds dtc extended; uds "
    "dtc clear; xcp config (group); xcp config get; xcp config set; xcp connect; xcp status; "
    "xcp disconnect; xcp unlock; xcp memory (group); xcp memory read; xcp memory write; xcp "
    "memory checksum; xcp measurement (group); xcp measurement read; xcp characteristic "
    "(group); xcp characteristic read; xcp characteristic write; xcp daq (group); xcp daq "
    "create; xcp daq start; xcp daq receive; xcp daq stop; xcp daq status; xcp daq delete; xcp "
    "daq event-channel; modbus read; modbus write; modbus file-record (group); modbus "
    "file-record read; modbus file-record write; modbus fifo (group); modbus fifo read; modbus "
    "status; modbus resource (group); modbus resource list; modbus resource show; modbus "
    "resource read; modbus resource write; modbus command (group); modbus command list; modbus "
    "command show; modbus command read; modbus command write; modbus poll (group); modbus poll "
    "start; modbus poll stop; modbus poll status; modbus value (group); modbus value latest; "
    "modbus value history; database load; database unload; database list; database info; "
    "database validate; dbc load; dbc decode; dbc encode; dbc message (group); dbc message "
    "list; dbc message show; dbc signal (group); dbc signal list; dbc signal show; ldf load; "
    "ldf info; ldf node (group); ldf node list; ldf node show; ldf frame (group); ldf frame "
    "list; ldf frame show; ldf signal (group); ldf signal list; ldf signal show; ldf schedule "
    "(group); ldf schedule list; ldf schedule show; ldf schedule activate; ldf schedule "
    "deactivate; a2l load; a2l info; a2l measurement (group); a2l measurement list; a2l "
    "measurement show; a2l characteristic (group); a2l characteristic list; a2l characteristic "
    "show; logging start; logging stop; logging status; replay start; replay stop; replay "
    "status; offline logging (group); offline logging start; offline logging stop; offline "
    "logging status; offline replay (group); offline replay start; offline replay stop; "
    "offline replay status; offline config (group); offline config save; offline config load; "
    "offline config clear; checksum; convert; daemon start; daemon stop; daemon restart; daemon "
    "status; gateway start; gateway stop; gateway status; web start; web stop; web status";

std::vector<std::string> split(const std::string& text, const std::string& sep) {
  std::vector<std::string> out;
  size_t pos = 0;
  for (;;) {
    size_t next = text.find(sep, pos);
    out.push_back(text.substr(pos, next - pos));
    if (next == std::string::npos) return out;
    pos = next + sep.size();
  }
}

std::string path_of(const vxcli_command_entry* entry) {
  char path[128];
  EXPECT_EQ(vxcli_command_path(entry, path, sizeof path), 0);
  return path;
}

std::string option_name(const vxcli_command_option& option) {
  char name[96];
  if (vxcli_command_option_name(&option, name, sizeof name) != 0) return "";
  return name;
}

TEST(CatalogData, CommandsInPublishedOrderWithKinds) {
  std::vector<std::string> expected = split(kCommandList, "; ");
  ASSERT_EQ(expected.size(), 202u);
  ASSERT_EQ(vxcli_command_count(), 202);
  int groups = 0;
  for (int i = 0; i < 202; i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    ASSERT_NE(entry, nullptr);
    std::string want = expected[static_cast<size_t>(i)];
    bool group = want.size() > 8 && want.compare(want.size() - 8, 8, " (group)") == 0;
    if (group) want.resize(want.size() - 8);
    EXPECT_EQ(path_of(entry), want) << "entry " << i;
    EXPECT_EQ(entry->kind, group ? VXCLI_COMMAND_GROUP : VXCLI_COMMAND_OPERATION) << want;
    groups += group;
  }
  EXPECT_EQ(groups, 31);
  EXPECT_EQ(vxcli_command_at(-1), nullptr);
  EXPECT_EQ(vxcli_command_at(202), nullptr);
}

TEST(CatalogData, CategoriesAndGlobalOptions) {
  const char* names[] = {"help",     "version", "doctor",  "ai",      "bench",   "update",
                         "device",   "channel", "can",     "lin",     "message", "txtask",
                         "route",    "isotp",   "uds",     "xcp",     "modbus",  "database",
                         "dbc",      "ldf",     "a2l",     "logging", "replay",  "offline",
                         "checksum", "convert", "daemon",  "gateway", "web"};
  ASSERT_EQ(vxcli_command_category_count(), 29);
  for (int i = 0; i < 29; i++) {
    const vxcli_command_category* category = vxcli_command_category_at(i);
    EXPECT_STREQ(category->name, names[i]);
    EXPECT_EQ(category->aliases, nullptr);
    EXPECT_EQ(vxcli_command_category_find(names[i]), category);
  }
  EXPECT_EQ(vxcli_command_category_at(29), nullptr);
  EXPECT_EQ(vxcli_command_category_find("Channel"), nullptr);
  // Every command lives in a listed category.
  for (int i = 0; i < vxcli_command_count(); i++)
    EXPECT_NE(vxcli_command_category_find(vxcli_command_at(i)->category), nullptr);

  ASSERT_EQ(vxcli_command_global_option_count(), 6);
  std::vector<std::string> globals;
  for (int i = 0; i < 6; i++) globals.push_back(option_name(*vxcli_command_global_option_at(i)));
  EXPECT_EQ(globals, (std::vector<std::string>{"version", "format", "to", "project", "verbose",
                                                "help"}));
  EXPECT_STREQ(vxcli_command_global_option_at(2)->default_value, "tcp://127.0.0.1:4502");
}

// Metadata classes exactly as published: permission, execution, http, retryable,
// migrated, exposure reason, then the commands of the class.
struct PolicyClass {
  const char* permission;
  const char* execution;
  const char* http;
  bool retryable;
  bool migrated;
  const char* reason;
  const char* commands;
};

const PolicyClass kClasses[] = {
    {"bus-write", "daemon", "disabled", false, false, "not exposed through typed HTTP service",
     "channel power on, channel power off, channel power cycle, can config set, lin config set, "
     "lin response set, lin response remove, lin response clear, lin schedule add, lin schedule "
     "remove, lin schedule clear, lin schedule activate, lin schedule deactivate, channel "
     "autoset, channel recover, channel auto-recover on, channel auto-recover off, channel "
     "reset-defaults, isotp send, isotp ecu-sim, uds discover, uds config set, uds request, uds "
     "load, uds unlock, uds download, uds present send, uds present start, uds present stop, "
     "uds dtc active, uds dtc supported, uds dtc snapshot-id, uds dtc clear, ldf schedule "
     "activate, ldf schedule deactivate, offline logging start, offline logging stop, offline "
     "replay start, offline replay stop, offline config save, offline config load, offline "
     "config clear"},
    {"read", "local", "disabled", true, false, "not exposed through typed HTTP service",
     "help, doctor, ai status, bench validate, database validate, dbc decode, dbc encode, dbc "
     "message list, dbc message show, dbc signal list, dbc signal show, ldf info, ldf node list, "
     "ldf node show, ldf frame list, ldf frame show, ldf signal list, ldf signal show, ldf "
     "schedule list, ldf schedule show, a2l info, a2l measurement list, a2l measurement show, "
     "a2l characteristic list, a2l characteristic show, checksum"},
    {"read", "daemon", "disabled", true, false, "not exposed through typed HTTP service",
     "channel enumerate, channel status, channel power status, can config get, lin config get, "
     "lin response get, lin response list, lin schedule list, lin schedule show, channel "
     "auto-recover status, message recv, isotp recv, uds config get, uds list, uds present "
     "status, uds dtc count, uds dtc snapshot, uds dtc extended, offline logging status, "
     "offline replay status, daemon status, web status"},
    {"bus-write", "daemon", "mutate", false, true, "typed REST resource",
     "message send, txtask add, txtask remove, route add, route remove, xcp config set, xcp "
     "connect, xcp disconnect, xcp unlock, xcp memory write, xcp characteristic write, xcp daq "
     "create, xcp daq start, xcp daq stop, xcp daq delete, modbus poll start, modbus poll stop, "
     "logging stop, replay start, replay stop"},
    {"read", "daemon", "read", true, true, "typed REST resource",
     "channel info, txtask list, route list, xcp config get, xcp status, xcp memory read, xcp "
     "memory checksum, xcp measurement read, xcp characteristic read, xcp daq receive, xcp daq "
     "status, xcp daq event-channel, modbus poll status, modbus value latest, modbus value "
     "history, logging status, replay status, gateway status"},
    {"read", "local", "read", true, true, "typed REST resource",
     "version, bench show, modbus read, modbus file-record read, modbus fifo read, modbus "
     "status, modbus resource list, modbus resource show, modbus resource read, modbus command "
     "list, modbus command show, modbus command read, database list, database info"},
    {"host-file-write", "local", "disabled", false, false,
     "not exposed through typed HTTP service",
     "ai setup, bench init, bench import, dbc load, ldf load, a2l load, convert"},
    {"service-admin", "daemon", "disabled", false, false,
     "not exposed through typed HTTP service",
     "channel claim, channel release, daemon start, daemon stop, daemon restart, web start, web "
     "stop"},
    {"service-admin", "daemon", "mutate", false, true, "typed REST resource",
     "channel open, channel close, gateway start, gateway stop"},
    {"bus-write", "local", "mutate", false, true, "typed REST resource",
     "modbus write, modbus file-record write, modbus resource write, modbus command write"},
    {"device-disruptive", "job", "disabled", false, false,
     "device-disruptive operation remains local-only", "device reset, device update"},
    {"host-file-write", "local", "mutate", false, true, "typed REST resource",
     "database load, database unload"},
    {"service-admin", "local", "disabled", false, false, "not exposed through typed HTTP service",
     "update"},
    {"host-file-write", "daemon", "disabled", false, false,
     "not exposed through typed HTTP service", "uds save"},
    {"host-file-write", "daemon", "mutate", false, true, "typed REST resource", "logging start"},
};

TEST(CatalogData, EveryOperationHasExactlyItsPublishedMetadata) {
  std::map<std::string, const PolicyClass*> expected;
  for (const PolicyClass& c : kClasses)
    for (const std::string& path : split(c.commands, ", ")) {
      EXPECT_EQ(expected.count(path), 0u) << path;
      expected[path] = &c;
    }
  ASSERT_EQ(expected.size(), 171u);

  // Rows: one per operation id, none for groups or unknown ids.
  ASSERT_EQ(vxcli_command_policy_count(), 171);
  std::set<std::string> operation_ids;
  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    char id[128];
    ASSERT_EQ(vxcli_command_operation_id(entry, id, sizeof id), 0);
    if (entry->kind == VXCLI_COMMAND_OPERATION) operation_ids.insert(id);
  }
  ASSERT_EQ(operation_ids.size(), 171u);
  std::set<std::string> row_ids;
  for (int i = 0; i < vxcli_command_policy_count(); i++) {
    std::string id = vxcli_command_policy_at(i)->operation_id;
    EXPECT_TRUE(row_ids.insert(id).second) << "duplicate row " << id;
    EXPECT_EQ(operation_ids.count(id), 1u) << "row names no operation: " << id;
  }

  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    vxcli_command_policy policy;
    std::string path = path_of(entry);
    if (entry->kind == VXCLI_COMMAND_GROUP) {
      EXPECT_EQ(vxcli_command_metadata(entry, &policy), -1) << path;
      continue;
    }
    ASSERT_EQ(vxcli_command_metadata(entry, &policy), 0) << path;
    ASSERT_EQ(expected.count(path), 1u) << path;
    const PolicyClass& want = *expected[path];
    EXPECT_STREQ(vxcli_command_permission_name(policy.permission), want.permission) << path;
    EXPECT_STREQ(vxcli_command_execution_name(policy.execution), want.execution) << path;
    EXPECT_STREQ(vxcli_command_http_policy_name(policy.http_policy), want.http) << path;
    EXPECT_EQ(policy.retryable != 0, want.retryable) << path;
    EXPECT_EQ(policy.migrated != 0, want.migrated) << path;
    EXPECT_STREQ(policy.exposure_reason, want.reason) << path;
  }
}

TEST(CatalogData, EntriesAreWellFormed) {
  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    std::string path = path_of(entry);
    ASSERT_NE(entry->usage, nullptr) << path;
    EXPECT_EQ(std::string(entry->usage).rfind("vxcli " + path, 0), 0u) << entry->usage;
    ASSERT_NE(entry->summary, nullptr) << path;
    EXPECT_GT(strlen(entry->summary), 10u) << path;
    if (entry->kind == VXCLI_COMMAND_GROUP) {
      EXPECT_EQ(entry->option_count, 0) << path;
      // A group names at least one of its sub-commands, and each exists.
      ASSERT_NE(entry->arguments, nullptr) << path;
      for (const std::string& sub : split(entry->arguments, ", "))
        EXPECT_NE(vxcli_command_find(entry->category, entry->action, sub.c_str()), nullptr)
            << path << " " << sub;
      continue;
    }
    EXPECT_NE(entry->example, nullptr) << path;
    if (entry->example) {
      EXPECT_EQ(std::string(entry->example).rfind("vxcli " + path, 0), 0u) << entry->example;
    }
    std::set<std::string> names;
    for (int k = 0; k < entry->option_count; k++) {
      const vxcli_command_option& option = entry->options[k];
      std::string name = option_name(option);
      EXPECT_FALSE(name.empty()) << path << " " << option.syntax;
      EXPECT_TRUE(names.insert(name).second) << path << " repeats --" << name;
      EXPECT_EQ(std::string(option.syntax).rfind("--", 0), 0u) << option.syntax;
      EXPECT_NE(option.required, nullptr) << option.syntax;
      EXPECT_NE(option.description, nullptr) << option.syntax;
    }
    // A conflicting option must be one of the same command's options.
    for (int k = 0; k < entry->option_count; k++) {
      const char* other = entry->options[k].mutually_exclusive_with;
      if (other) {
        EXPECT_EQ(names.count(other + 2), 1u) << path << " " << other;
      }
    }
  }
}

// Options the handlers read. Validation must accept every one of them.
TEST(CatalogData, OptionsReadByHandlersAreAccepted) {
  const std::map<std::string, std::string> read = {
      {"message send",
       "channel message id data dlc flags type count cycle timeout database dbc bitrate pullup "
       "power lin-version checksum signal mode termination"},
      {"message recv",
       "channel count duration id mask decode database dbc bitrate mode pullup power "
       "lin-version checksum"},
      {"daemon start",
       "channel mode bitrate nbitrate dbitrate termination pullup power lin-version checksum"},
      {"channel open",
       "channel mode bitrate nbitrate dbitrate termination pullup power lin-version checksum"},
      {"channel info", "channel"},
      {"channel claim", "channel timeout"},
      {"channel release", "channel"},
      {"txtask add",
       "channel message id cycle data type flags rounds delay inc-startbit inc-nbits inc-step "
       "inc-min inc-max"},
      {"txtask remove", "channel taskid"},
      {"txtask list", "channel"},
      {"route add", "src dst message id type flags"},
      {"route remove", "src dst message"},
      {"route list", "channel"},
      {"replay start",
       "channel file speed loop ignore-channel map-channel map-strict msg-delay "
       "ignore-timestamp cycle-delay bitrate"},
      {"logging start", "channel output format duration hardware bitrate"},
      {"logging stop", "hardware channel"},
      {"logging status", "channel"},
      {"database load", "file name type"},
      {"database unload", "name all"},
      {"database list", "type"},
      {"database info", "file name type"},
      {"database validate", "file name type"},
      {"dbc load", "file name type"},
      {"ldf load", "file name type"},
      {"a2l load", "file name type"},
      {"dbc decode", "message data database dbc"},
      {"dbc encode", "message signal database dbc"},
      {"dbc message list", "filter database dbc"},
      {"dbc message show", "message database dbc"},
      {"dbc signal list", "message database dbc"},
      {"dbc signal show", "message signal database dbc"},
      {"ldf info", "database ldf"},
      {"ldf frame list", "type database ldf"},
      {"ldf schedule activate", "channel schedule database ldf"},
      {"ldf schedule deactivate", "channel"},
      {"lin schedule add", "channel id type delay checksum data dlc"},
      {"lin schedule clear", "channel"},
      {"lin schedule activate", "channel"},
      {"lin schedule deactivate", "channel"},
      {"isotp send", "channel reqid respid data timeout flags padding"},
      {"isotp recv", "channel reqid respid timeout flags padding"},
      {"isotp ecu-sim", "channel reqid respid flags padding responses"},
      {"uds request",
       "channel request-id response-id flags padding bitrate data suppress-positive-response "
       "dry-run timeout"},
      {"uds discover",
       "channel start-id end-id response-offset timeout probe flags padding bitrate"},
      {"uds load", "file"},
      {"uds save", "file"},
      {"ldf node show", "name database ldf"},
      {"ldf frame show", "name database ldf"},
      {"ldf signal show", "name database ldf"},
      {"ldf schedule show", "name database ldf"},
      {"uds unlock", "level algo channel request-id response-id flags"},
      {"uds download", "file addr size format alf maxblock channel request-id response-id"},
      {"uds dtc active", "mask timeout channel request-id response-id"},
      {"uds dtc snapshot", "dtc record timeout"},
      {"uds dtc extended", "dtc record"},
      {"uds dtc clear", "group channel request-id response-id"},
      {"uds present send", "interval count timeout channel"},
      {"uds config set", "channel request-id response-id flags padding"},
      {"bench init", "global"},
      {"bench validate", "hardware"},
      {"update", "check"},
      {"replay stop", ""},
      {"convert", ""},
  };
  for (const auto& [line, names] : read) {
    std::vector<std::string> path = split(line, " ");
    for (const std::string& name : split(names, " ")) {
      if (name.empty()) continue;
      std::vector<std::string> words = path;
      words.push_back("--" + name + "=1");
      std::vector<char*> argv;
      for (std::string& w : words) argv.push_back(w.data());
      char message[192];
      EXPECT_EQ(vxcli_command_validate_options(static_cast<int>(argv.size()), argv.data(),
                                               message, sizeof message),
                0)
          << line << ": " << message;
    }
  }
}

}  // namespace
