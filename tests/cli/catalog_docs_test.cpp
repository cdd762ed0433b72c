// The completion script and man page generated from the JSON help at build time.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "vxtest.h"

namespace {

const std::string kCompletion = std::string(VX_BIN_DIR) + "/../share/bash-completion/vxcli";
const std::string kManPage = std::string(VX_BIN_DIR) + "/../share/man/vxcli.1";

std::string quote(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string run(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "<popen failed>";
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

// Completes the last word of the line as bash would, one candidate per line.
std::string complete(const std::vector<std::string>& line) {
  std::string words;
  for (const std::string& w : line) words += " " + quote(w);
  std::string script = "source " + quote(kCompletion) + "; COMP_WORDS=(" + words +
                       "); COMP_CWORD=" + std::to_string(line.size() - 1) +
                       "; cd /nonexistent 2>/dev/null; _vxcli; printf '%s\\n' \"${COMPREPLY[@]}\"";
  return run("bash -c " + quote(script) + " 2>&1");
}

TEST(CatalogDocs, CompletionFollowsTheCatalogue) {
  ASSERT_EQ(access(kCompletion.c_str(), R_OK), 0) << kCompletion;
  EXPECT_EQ(run("bash -n " + quote(kCompletion) + " 2>&1"), "");
  EXPECT_EQ(complete({"vxcli", "cha"}), "channel\n");
  EXPECT_EQ(complete({"vxcli", "channel", "power", ""}), "status\non\noff\ncycle\n");
  EXPECT_EQ(complete({"vxcli", "help", "ldf", "sch"}), "schedule\n");
  EXPECT_EQ(complete({"vxcli", "message", "send", "--ch"}), "--channel=\n--checksum=\n");
  EXPECT_EQ(complete({"vxcli", "message", "send", "--checksum=en"}), "--checksum=enhanced\n");
  // Global options are offered everywhere; a command's own --format wins.
  EXPECT_EQ(complete({"vxcli", "logging", "start", "--format="}), "--format=asc\n--format=blf\n");
  EXPECT_EQ(complete({"vxcli", "daemon", "status", "--format=j"}),
            "--format=json\n--format=jsonl\n");
  EXPECT_EQ(complete({"vxcli", "--verbose", "txtask", "add", "--inc-m"}),
            "--inc-min=\n--inc-max=\n");
  // Every option of every operation is offered for it (one shell for all of them).
  std::string script = "source " + quote(kCompletion) + ";";
  std::vector<const vxcli_command_entry*> operations;
  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    if (entry->kind != VXCLI_COMMAND_OPERATION) continue;
    char path[128];
    vxcli_command_path(entry, path, sizeof path);
    script += " echo \" $(_vxcli_options " + quote(path) + ")\";";
    operations.push_back(entry);
  }
  std::string all = run("bash -c " + quote(script));
  size_t line_start = 0;
  for (const vxcli_command_entry* entry : operations) {
    size_t line_end = all.find('\n', line_start);
    ASSERT_NE(line_end, std::string::npos);
    std::string offered = all.substr(line_start, line_end - line_start) + " ";
    line_start = line_end + 1;
    for (int k = 0; k < entry->option_count; k++) {
      char name[96];
      ASSERT_EQ(vxcli_command_option_name(&entry->options[k], name, sizeof name), 0);
      EXPECT_NE(offered.find(std::string(" --") + name), std::string::npos)
          << entry->usage << " --" << name;
    }
  }
}

TEST(CatalogDocs, ManPageListsEveryOperation) {
  std::string page = vxtest::read_file(kManPage);
  ASSERT_FALSE(page.empty()) << kManPage;
  EXPECT_EQ(page.find(".TH VXCLI 1 \"\" \"vxcli 1.2.1\""), page.find(".TH"));
  for (int i = 0; i < vxcli_command_count(); i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    if (entry->kind != VXCLI_COMMAND_OPERATION) continue;
    std::string usage;
    for (const char* p = entry->usage; *p; p++) usage += *p == '-' ? "\\-" : std::string(1, *p);
    EXPECT_NE(page.find(".B " + usage + "\n"), std::string::npos) << entry->usage;
  }
  if (access("/usr/bin/groff", X_OK) == 0) {
    EXPECT_EQ(run("groff -man -Tutf8 -ww -z " + quote(kManPage) + " 2>&1"), "");
  }
}

}  // namespace
