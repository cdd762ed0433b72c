// uds load, save and list: the service definitions used for named requests.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/output.h"
#include "diag/commands.h"
#include "diag/diag_util.h"
#include "diag/services.h"
#include "diag/uds.h"
#include "project/dirs.h"

namespace {

const char* file_argument(int count, char** words, const char* verb) {
  const char* file = vxcli_get_option(count, words, "file");
  if (file) return file;
  std::vector<char*> positional = vxcli_diag_positionals(count, words, {});
  if (!positional.empty()) return positional[0];
  vxcli_print_error("usage: uds %s <file.xml>", verb);
  return nullptr;
}

bool json_mode() {
  return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL;
}

}  // namespace

int vxcli_uds_load_command(int count, char** words) {
  const char* file = file_argument(count, words, "load");
  if (!file) return 1;
  std::vector<vxcli_uds_service> services;
  char message[512];
  if (vxcli_uds_services_read_file(file, &services, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  char dir[1024], path[1100];
  if (vxcli_get_config_dir(dir, sizeof dir) != 0 || vxcli_uds_services_user_path(path, sizeof path) != 0) {
    vxcli_print_error("cannot resolve VXCLI configuration directory");
    return 1;
  }
  if (mkdir(dir, 0700) != 0 && errno != EEXIST) {
    vxcli_print_error("cannot create %s: %s", dir, strerror(errno));
    return 1;
  }
  if (vxcli_uds_services_write_file(path, services, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (json_mode())
    printf("{\"status\":\"ok\",\"services\":%zu,\"source\":\"%s\",\"stored\":\"%s\"}\n", services.size(),
           vxcli_diag_json_escape(file).c_str(), vxcli_diag_json_escape(path).c_str());
  else
    printf("Loaded %zu UDS service(s) from %s\n", services.size(), file);
  return 0;
}

int vxcli_uds_save_command(int count, char** words) {
  const char* file = file_argument(count, words, "save");
  if (!file) return 1;
  std::vector<vxcli_uds_service> services;
  std::string source;
  char message[512];
  if (vxcli_uds_services_current(&services, &source, message, sizeof message) != 0 ||
      vxcli_uds_services_write_file(file, services, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (json_mode())
    printf("{\"status\":\"ok\",\"services\":%zu,\"file\":\"%s\"}\n", services.size(),
           vxcli_diag_json_escape(file).c_str());
  else
    printf("Saved %zu UDS service(s) to %s\n", services.size(), file);
  return 0;
}

int vxcli_uds_list_command(int count, char** words) {
  std::vector<vxcli_uds_service> services;
  std::string source;
  char message[512];
  if (vxcli_uds_services_current(&services, &source, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (const char* filter = vxcli_get_option(count, words, "filter")) {
    std::vector<vxcli_uds_service> kept;
    for (auto& s : services)
      if (strcasestr(s.name.c_str(), filter) || strcasestr(s.alias.c_str(), filter) ||
          strcasestr(s.description.c_str(), filter))
        kept.push_back(s);
    services.swap(kept);
  }
  if (json_mode()) {
    printf("{\"status\":\"ok\",\"source\":\"%s\",\"count\":%zu,\"services\":[",
           vxcli_diag_json_escape(source.c_str()).c_str(), services.size());
    for (size_t i = 0; i < services.size(); i++) {
      const auto& s = services[i];
      printf("%s{\"id\":\"0x%02X\",\"name\":\"%s\",\"alias\":\"%s\",\"request\":\"%02X%s\",\"params\":\"%s\","
             "\"description\":\"%s\"}",
             i ? "," : "", s.id, vxcli_diag_json_escape(s.name.c_str()).c_str(),
             vxcli_diag_json_escape(s.alias.c_str()).c_str(), s.id,
             vxcli_diag_hex_compact(s.data.data(), s.data.size()).c_str(),
             vxcli_diag_json_escape(s.params.c_str()).c_str(),
             vxcli_diag_json_escape(s.description.c_str()).c_str());
    }
    printf("]}\n");
    return 0;
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("id,name,alias,request,params,description\n");
    for (const auto& s : services)
      printf("0x%02X,%s,%s,%02X%s,\"%s\",\"%s\"\n", s.id, s.name.c_str(), s.alias.c_str(), s.id,
             vxcli_diag_hex_compact(s.data.data(), s.data.size()).c_str(), s.params.c_str(),
             s.description.c_str());
    return 0;
  }
  printf("%zu UDS service(s) from %s\n", services.size(), source.c_str());
  for (const auto& s : services) {
    std::string req = vxcli_uds_hex(&s.id, 1);
    if (!s.data.empty()) {
      req += ' ';
      req += vxcli_uds_hex(s.data.data(), s.data.size());
    }
    printf("  %-32s %-10s %-12s %s%s%s\n", s.name.c_str(), s.alias.c_str(), req.c_str(),
           s.description.c_str(), s.params.empty() ? "" : " -- params: ", s.params.c_str());
  }
  return 0;
}
