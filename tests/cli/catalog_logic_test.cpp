// Lookup, naming, path resolution and the validation of command lines.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "cli/output.h"

namespace {

// Owns the words of one command line as mutable C strings.
struct Line {
  std::vector<std::string> words;
  std::vector<char*> argv;
  Line(std::initializer_list<const char*> list) : words(list.begin(), list.end()) {
    for (std::string& w : words) argv.push_back(w.data());
  }
  int count() { return static_cast<int>(argv.size()); }
  char** data() { return argv.data(); }
};

std::string options_error(Line line) {
  char message[192] = "untouched";
  int rc = vxcli_command_validate_options(line.count(), line.data(), message, sizeof message);
  if (rc == 0) {
    EXPECT_STREQ(message, "");
    return "";
  }
  EXPECT_EQ(rc, -1);
  return message;
}

std::string format_error(Line line, uint32_t format) {
  char message[192] = "untouched";
  int rc = vxcli_command_validate_format(line.count(), line.data(), format, message,
                                         sizeof message);
  if (rc == 0) {
    EXPECT_STREQ(message, "");
    return "";
  }
  return message;
}

TEST(CatalogLookup, ExactWordsAndNullMatching) {
  const vxcli_command_entry* status = vxcli_command_find("channel", "power", "status");
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->kind, VXCLI_COMMAND_OPERATION);
  const vxcli_command_entry* group = vxcli_command_find("channel", "power", nullptr);
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->kind, VXCLI_COMMAND_GROUP);
  EXPECT_NE(vxcli_command_find("version", nullptr, nullptr), nullptr);
  EXPECT_EQ(vxcli_command_find("version", "now", nullptr), nullptr);
  EXPECT_EQ(vxcli_command_find("channel", nullptr, nullptr), nullptr);  // category only
  EXPECT_EQ(vxcli_command_find("Channel", "power", "status"), nullptr);
  EXPECT_EQ(vxcli_command_find("channel", "powe", nullptr), nullptr);
  EXPECT_EQ(vxcli_command_find(nullptr, nullptr, nullptr), nullptr);
}

TEST(CatalogNaming, PathAndOperationIdFitExactly) {
  const vxcli_command_entry* entry = vxcli_command_find("channel", "power", "status");
  char out[21];
  ASSERT_EQ(vxcli_command_path(entry, out, sizeof out), 0);
  EXPECT_STREQ(out, "channel power status");
  ASSERT_EQ(vxcli_command_operation_id(entry, out, sizeof out), 0);
  EXPECT_STREQ(out, "channel.power.status");
  EXPECT_EQ(vxcli_command_operation_id(entry, out, 20), -1);  // no room for the NUL
  EXPECT_EQ(vxcli_command_path(nullptr, out, sizeof out), -1);
  EXPECT_EQ(vxcli_command_path(entry, nullptr, 10), -1);
  ASSERT_EQ(vxcli_command_operation_id(vxcli_command_find("help", nullptr, nullptr), out, 5), 0);
  EXPECT_STREQ(out, "help");
}

TEST(CatalogNaming, OptionNameFromSyntax) {
  auto name = [](const char* syntax, size_t size = 64) {
    vxcli_command_option option{syntax};
    char out[64];
    if (vxcli_command_option_name(&option, out, size) != 0) return std::string("<fail>");
    return std::string(out);
  };
  EXPECT_EQ(name("--channel=<spec>"), "channel");
  EXPECT_EQ(name("--message=<id|DBC-name>, --id=<id>"), "message");
  EXPECT_EQ(name("[--cycle=<ms>]"), "cycle");
  EXPECT_EQ(name(" ([--loop])"), "loop");
  EXPECT_EQ(name("--decode"), "decode");
  EXPECT_EQ(name("<file>"), "file");
  EXPECT_EQ(name("--a|b"), "a");
  EXPECT_EQ(name("--"), "<fail>");
  EXPECT_EQ(name("--=x"), "<fail>");
  EXPECT_EQ(name("--channel", 7), "<fail>");
  EXPECT_EQ(name("--channel", 8), "channel");
}

TEST(CatalogNaming, ValueTypeInference) {
  auto type = [](vxcli_command_option option) {
    return std::string(vxcli_command_option_value_type(&option));
  };
  EXPECT_EQ(type({"--count=<N>", "no", nullptr, nullptr, "d", "integer"}), "integer");
  EXPECT_EQ(type({"--loop"}), "boolean");
  EXPECT_EQ(type({"--a=<x|y>", "no", nullptr, "ms"}), "integer");
  EXPECT_EQ(type({"--a=<x>", "no", nullptr, "kbps"}), "integer");
  EXPECT_EQ(type({"--a=<x>", "no", nullptr, "events"}), "integer");
  EXPECT_EQ(type({"--a=<x>", "no", nullptr, "V"}), "string");  // not a counted unit
  EXPECT_EQ(type({"--taskid=<index>"}), "integer");
  EXPECT_EQ(type({"--port=<port>"}), "integer");
  EXPECT_EQ(type({"--value=text"}), "string");
  EXPECT_EQ(type({"--termination=<120|off>"}), "enum");
  EXPECT_EQ(type({"--channel=<spec>"}), "string");
  EXPECT_EQ(type({"<file>"}), "string");
}

TEST(CatalogResolve, LongestExistingPathWins) {
  struct Case {
    Line line;
    const char* id;
    int path_words;
  };
  std::vector<Case> cases;
  cases.push_back({{"channel", "power", "status", "--channel=1"}, "channel.power.status", 3});
  cases.push_back({{"dbc", "message", "show", "EngineData"}, "dbc.message.show", 3});
  cases.push_back({{"database", "unload", "vehicle"}, "database.unload", 2});
  cases.push_back({{"uds", "request", "22", "F1", "90"}, "uds.request", 2});
  cases.push_back({{"convert", "in.asc", "out.blf"}, "convert", 1});
  cases.push_back({{"version"}, "version", 1});
  // A third word that is an option does not take part in the path.
  cases.push_back({{"message", "send", "--channel=1"}, "message.send", 2});
  for (Case& c : cases) {
    vxcli_command_request request{};
    char id[64];
    char message[96];
    int marker = 7;
    ASSERT_EQ(vxcli_command_request_init(&request, c.line.count(), c.line.data(),
                                         VXCLI_FORMAT_JSONL, &marker, id, sizeof id, message,
                                         sizeof message),
              0)
        << c.id << ": " << message;
    EXPECT_STREQ(request.operation_id, c.id);
    EXPECT_EQ(request.operation_id, id);
    EXPECT_EQ(request.path_words, c.path_words) << c.id;
    EXPECT_EQ(request.count, c.line.count());
    EXPECT_EQ(request.words, c.line.data());
    EXPECT_EQ(request.format, VXCLI_FORMAT_JSONL);
    EXPECT_EQ(request.context, &marker);
  }
}

TEST(CatalogResolve, FailureTexts) {
  auto failure = [](Line line, size_t id_size = 64) {
    vxcli_command_request request{};
    char id[64];
    char message[96] = "";
    EXPECT_EQ(vxcli_command_request_init(&request, line.count(), line.data(), 0, nullptr, id,
                                         id_size, message, sizeof message),
              -1);
    return std::string(message);
  };
  EXPECT_EQ(failure({}), "empty command request");
  EXPECT_EQ(failure({"version"}, 0), "empty command request");
  EXPECT_EQ(failure({"nosuch", "thing"}), "unknown command path");
  EXPECT_EQ(failure({"channel"}), "unknown command path");
  EXPECT_EQ(failure({"channel", "power"}), "command path is a group, not an operation");
  EXPECT_EQ(failure({"channel", "power", "bogus"}), "command path is a group, not an operation");
  EXPECT_EQ(failure({"channel", "power", "--channel=1"}),
            "command path is a group, not an operation");
  EXPECT_EQ(failure({"channel", "power", "status"}, 20), "operation id buffer is too small");
}

TEST(CatalogValidate, OptionNamesAgainstTheTable) {
  // Known names, in either value form, anywhere after the path.
  EXPECT_EQ(options_error({"message", "send", "--channel=10356/0", "--id", "0x123"}), "");
  EXPECT_EQ(options_error({"message", "send", "--id=1", "--data=", "--signal=a=1"}), "");
  // A flag written with a value is accepted by name; values are the handler's business.
  EXPECT_EQ(options_error({"bench", "init", "--global=1"}), "");
  // Positional and single-dash words pass unexamined.
  EXPECT_EQ(options_error({"uds", "request", "22", "-x", "F1"}), "");
  // Names must match completely.
  EXPECT_EQ(options_error({"message", "send", "--chan=1"}),
            "unknown option '--chan' for message.send");
  EXPECT_EQ(options_error({"message", "send", "--channelx=1"}),
            "unknown option '--channelx' for message.send");
  EXPECT_EQ(options_error({"channel", "power", "status", "--bogus"}),
            "unknown option '--bogus' for channel.power.status");
  // A format word the entry did not consume is an unknown option, except
  // where the command has its own --format.
  EXPECT_EQ(options_error({"message", "send", "--format=yaml"}),
            "unknown option '--format' for message.send");
  EXPECT_EQ(options_error({"logging", "start", "--format=blf"}), "");
  // --version after a command word is not the global banner.
  EXPECT_EQ(options_error({"channel", "info", "--version"}),
            "unknown option '--version' for channel.info");
}

TEST(CatalogValidate, EmptyAndRetiredOptions) {
  EXPECT_EQ(options_error({"message", "send", "--=x"}), "invalid empty option");
  EXPECT_EQ(options_error({"message", "send", "--"}), "invalid empty option");
  EXPECT_EQ(options_error({"update", "--dry-run"}), "--dry-run was removed; use update --check");
  EXPECT_EQ(options_error({"update", "--check"}), "");
  for (const char* retired : {"master-read", "sync-break", "request"})
    EXPECT_EQ(options_error({"message", "send", (std::string("--") + retired).c_str()}),
              std::string("--") + retired + " was removed; use --type=<operation>");
  // The retirement pointers belong to their operations only.
  EXPECT_EQ(options_error({"uds", "request", "--master-read"}),
            "unknown option '--master-read' for uds.request");
  EXPECT_EQ(options_error({"uds", "request", "--dry-run"}), "");
}

TEST(CatalogValidate, UnresolvedLinesPassToDispatch) {
  EXPECT_EQ(options_error({"nosuch", "--x"}), "");
  EXPECT_EQ(options_error({"channel", "power", "--anything"}), "");
  EXPECT_EQ(options_error({"channel", "config", "--bogus"}), "");
  EXPECT_EQ(options_error({}), "");
  // A long unknown name still yields one bounded message.
  std::string huge = "--" + std::string(500, 'x');
  std::string message = options_error({"version", huge.c_str()});
  EXPECT_EQ(message.rfind("unknown option '--xxxx", 0), 0u);
  EXPECT_EQ(message.size(), 191u);
}

TEST(CatalogValidate, Formats) {
  for (uint32_t f : {VXCLI_FORMAT_TEXT, VXCLI_FORMAT_CSV})
    EXPECT_EQ(format_error({"modbus", "read"}, f),
              std::string("Modbus commands return structured JSON; use --format=json, not ") +
                  (f == VXCLI_FORMAT_TEXT ? "text" : "csv"));
  for (uint32_t f : {VXCLI_FORMAT_JSON, VXCLI_FORMAT_JSONL}) {
    EXPECT_EQ(format_error({"modbus", "read"}, f), "");
    EXPECT_EQ(format_error({"modbus", "poll", "status"}, f), "");
  }
  EXPECT_EQ(format_error({"modbus", "poll", "status"}, VXCLI_FORMAT_CSV),
            "Modbus commands return structured JSON; use --format=json, not csv");
  EXPECT_EQ(format_error({"modbus", "poll"}, VXCLI_FORMAT_TEXT), "");  // a group: dispatch says
  EXPECT_EQ(format_error({"xcp", "daq", "receive"}, VXCLI_FORMAT_JSONL),
            "xcp daq receive supports text or bounded JSON; use --format=json, not jsonl");
  EXPECT_EQ(format_error({"xcp", "daq", "receive"}, VXCLI_FORMAT_CSV),
            "xcp daq receive supports text or bounded JSON; use --format=json, not csv");
  EXPECT_EQ(format_error({"xcp", "daq", "receive"}, VXCLI_FORMAT_TEXT), "");
  EXPECT_EQ(format_error({"xcp", "daq", "status"}, VXCLI_FORMAT_CSV), "");
  for (uint32_t f : {VXCLI_FORMAT_TEXT, VXCLI_FORMAT_JSON, VXCLI_FORMAT_JSONL, VXCLI_FORMAT_CSV})
    EXPECT_EQ(format_error({"message", "recv"}, f), "");
}

TEST(CatalogMetadata, NamesAndUnknownValues) {
  EXPECT_STREQ(vxcli_command_permission_name(4), "device-disruptive");
  EXPECT_STREQ(vxcli_command_permission_name(5), "unknown");
  EXPECT_STREQ(vxcli_command_execution_name(2), "job");
  EXPECT_STREQ(vxcli_command_execution_name(3), "unknown");
  EXPECT_STREQ(vxcli_command_http_policy_name(3), "job");
  EXPECT_STREQ(vxcli_command_http_policy_name(0xFFFFFFFFu), "unknown");
  vxcli_command_policy policy;
  EXPECT_EQ(vxcli_command_metadata(nullptr, &policy), -1);
  EXPECT_EQ(vxcli_command_metadata(vxcli_command_find("version", nullptr, nullptr), nullptr), -1);
}

}  // namespace
