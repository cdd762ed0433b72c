// The JSON help documents are the machine contract: they must parse with the
// project's reader and keep their keys in the published order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "cli/output.h"
#include "help_json_doc.h"

namespace {

using Keys = std::vector<std::string>;

template <typename Write>
std::string capture(Write write) {
  char* data = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&data, &size);
  write(out);
  fclose(out);
  std::string text(data, size);
  free(data);
  return text;
}

const Keys kOptionKeys = {"syntax",      "name", "value_type", "required", "default", "unit",
                          "constraints", "mutually_exclusive_with", "description"};
const Keys kMetadataKeys = {"operation_id", "permission", "execution", "http_policy",
                            "migrated", "retryable", "exposure_reason"};

void check_metadata(const helpdoc::Doc& doc, int index, bool group, const std::string& path) {
  if (group) {
    EXPECT_EQ(doc.str(index), "null") << path;
    return;
  }
  ASSERT_EQ(doc.token(index).type, VXCLI_JSON_OBJECT) << path;
  EXPECT_EQ(doc.keys(index), kMetadataKeys);
  std::string id = path;
  for (char& c : id)
    if (c == ' ') c = '.';
  EXPECT_EQ(doc.str(index, "operation_id"), id);
}

void check_option(const helpdoc::Doc& doc, int index) {
  ASSERT_EQ(doc.token(index).type, VXCLI_JSON_OBJECT);
  EXPECT_EQ(doc.keys(index), kOptionKeys);
  EXPECT_EQ(doc.token(doc.get(index, "mutually_exclusive_with")).type, VXCLI_JSON_ARRAY);
  EXPECT_LE(doc.token(doc.get(index, "mutually_exclusive_with")).size, 1);
  std::string type = doc.str(index, "value_type");
  EXPECT_TRUE(type == "integer" || type == "string" || type == "boolean" || type == "enum")
      << type;
}

TEST(HelpJson, RootDocument) {
  std::string text = capture([](FILE* out) { vxcli_help_write_root(out, VXCLI_FORMAT_JSON); });
  ASSERT_EQ(text.find('\n'), text.size() - 1) << "one line";
  helpdoc::Doc doc(text);
  ASSERT_TRUE(doc.ok()) << doc.parse_result();
  EXPECT_EQ(doc.keys(0), (Keys{"status", "level", "program", "version", "time_units",
                              "output_contract", "categories", "commands", "global_options"}));
  EXPECT_EQ(doc.str(0, "status"), "ok");
  EXPECT_EQ(doc.str(0, "level"), "root");
  EXPECT_EQ(doc.str(0, "version"), "1.2.1");
  int units = doc.get(0, "time_units");
  EXPECT_EQ(doc.keys(units), (Keys{"timeout", "cycle", "interval", "delay", "duration"}));
  EXPECT_EQ(doc.str(units, "duration"), "s");
  int contract = doc.get(0, "output_contract");
  EXPECT_EQ(doc.keys(contract), (Keys{"bounded_json", "success_status", "failure_status",
                                      "jsonl", "exit_codes"}));
  EXPECT_EQ(doc.items(doc.get(contract, "exit_codes")).size(), 2u);

  std::vector<int> categories = doc.items(doc.get(0, "categories"));
  ASSERT_EQ(categories.size(), 29u);
  EXPECT_EQ(doc.keys(categories[0]), (Keys{"name", "summary", "aliases"}));
  EXPECT_EQ(doc.str(categories[7], "name"), "channel");
  EXPECT_EQ(doc.str(categories[7], "aliases"), "null");

  std::vector<int> commands = doc.items(doc.get(0, "commands"));
  ASSERT_EQ(commands.size(), 202u);
  int groups = 0;
  for (size_t i = 0; i < commands.size(); i++) {
    int c = commands[i];
    EXPECT_EQ(doc.keys(c), (Keys{"path", "summary", "kind", "callable", "metadata"}));
    char path[128];
    vxcli_command_path(vxcli_command_at(static_cast<int>(i)), path, sizeof path);
    EXPECT_EQ(doc.str(c, "path"), path);
    bool group = doc.str(c, "kind") == "group";
    groups += group;
    EXPECT_EQ(doc.str(c, "callable"), group ? "false" : "true");
    check_metadata(doc, doc.get(c, "metadata"), group, path);
  }
  EXPECT_EQ(groups, 31);

  std::vector<int> globals = doc.items(doc.get(0, "global_options"));
  ASSERT_EQ(globals.size(), 6u);
  for (int g : globals) check_option(doc, g);
  EXPECT_EQ(doc.str(globals[1], "name"), "format");
  EXPECT_EQ(doc.str(globals[1], "value_type"), "enum");
  EXPECT_EQ(doc.str(globals[0], "value_type"), "boolean");
  EXPECT_EQ(doc.str(globals[0], "unit"), "null");
  // jsonl asks for the same single document.
  EXPECT_EQ(capture([](FILE* out) { vxcli_help_write_root(out, VXCLI_FORMAT_JSONL); }), text);
}

TEST(HelpJson, CategoryDocument) {
  std::string text = capture([](FILE* out) {
    vxcli_help_write_category(out, vxcli_command_category_find("txtask"), VXCLI_FORMAT_JSON);
  });
  helpdoc::Doc doc(text);
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc.keys(0), (Keys{"status", "level", "category", "summary", "commands"}));
  EXPECT_EQ(doc.str(0, "level"), "category");
  EXPECT_EQ(doc.str(0, "summary"), "Manage CAN periodic tasks and LIN slave response tables.");
  std::vector<int> commands = doc.items(doc.get(0, "commands"));
  ASSERT_EQ(commands.size(), 3u);
  EXPECT_EQ(doc.keys(commands[0]),
            (Keys{"path", "usage", "summary", "kind", "callable", "metadata"}));
  EXPECT_EQ(doc.str(commands[1], "path"), "txtask remove");
  EXPECT_EQ(doc.str(commands[1], "usage"),
            "vxcli txtask remove --channel=<spec> --taskid=<index>");
  EXPECT_EQ(doc.str(doc.get(commands[1], "metadata"), "http_policy"), "mutate");
}

TEST(HelpJson, EveryCommandDocument) {
  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    std::string text =
        capture([entry](FILE* out) { vxcli_help_write_command(out, entry, VXCLI_FORMAT_JSON); });
    helpdoc::Doc doc(text);
    ASSERT_TRUE(doc.ok()) << text;
    char path[128];
    vxcli_command_path(entry, path, sizeof path);
    ASSERT_EQ(doc.keys(0), (Keys{"status", "level", "path", "kind", "callable", "metadata",
                                 "usage", "summary", "arguments", "options", "global_options",
                                 "example", "notes"}))
        << path;
    EXPECT_EQ(doc.str(0, "level"), "command");
    EXPECT_EQ(doc.str(0, "path"), path);
    EXPECT_EQ(doc.str(0, "usage"), entry->usage);
    EXPECT_EQ(doc.str(0, "arguments"), entry->arguments ? entry->arguments : "null");
    EXPECT_EQ(doc.str(0, "notes"), entry->notes ? entry->notes : "null");
    check_metadata(doc, doc.get(0, "metadata"), entry->kind == VXCLI_COMMAND_GROUP, path);
    std::vector<int> options = doc.items(doc.get(0, "options"));
    ASSERT_EQ(options.size(), static_cast<size_t>(entry->option_count)) << path;
    for (size_t k = 0; k < options.size(); k++) {
      check_option(doc, options[k]);
      EXPECT_EQ(doc.str(options[k], "syntax"), entry->options[k].syntax);
    }
    EXPECT_EQ(doc.items(doc.get(0, "global_options")).size(), 6u);
  }
}

TEST(HelpJson, OptionObjectFields) {
  const vxcli_command_entry* decode = vxcli_command_find("dbc", "decode", nullptr);
  helpdoc::Doc doc(capture(
      [decode](FILE* out) { vxcli_help_write_command(out, decode, VXCLI_FORMAT_JSON); }));
  ASSERT_TRUE(doc.ok());
  std::vector<int> options = doc.items(doc.get(0, "options"));
  ASSERT_EQ(options.size(), 4u);
  int dbc = options[3];
  EXPECT_EQ(doc.str(dbc, "name"), "dbc");
  std::vector<int> conflicts = doc.items(doc.get(dbc, "mutually_exclusive_with"));
  ASSERT_EQ(conflicts.size(), 1u);
  EXPECT_EQ(doc.str(conflicts[0]), "--database");
  EXPECT_EQ(doc.items(doc.get(options[0], "mutually_exclusive_with")).size(), 0u);
  EXPECT_EQ(doc.str(options[0], "value_type"), "string");

  const vxcli_command_entry* claim = vxcli_command_find("channel", "claim", nullptr);
  helpdoc::Doc claim_doc(capture(
      [claim](FILE* out) { vxcli_help_write_command(out, claim, VXCLI_FORMAT_JSON); }));
  int timeout = claim_doc.items(claim_doc.get(0, "options"))[1];
  EXPECT_EQ(claim_doc.str(timeout, "value_type"), "integer");
  EXPECT_EQ(claim_doc.str(timeout, "default"), "300000");
  EXPECT_EQ(claim_doc.str(timeout, "unit"), "ms");
  EXPECT_EQ(claim_doc.str(timeout, "constraints"), "1000..86400000");
}

}  // namespace
