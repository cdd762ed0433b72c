// database load|unload|list|info|validate and the per-type loads.
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/output.h"
#include "database/commands.h"
#include "database/dbc_text.h"
#include "database/registry.h"
#include "database/sha256.h"
#include "json/json.h"

namespace {

constexpr size_t kErrorSize = 256;
const char* const kTypeHint = "<dbc|ldf|a2l|modbus-edgex>";

std::string lowercase(const char* text) {
  std::string out = text ? text : "";
  for (char& c : out) c = char(tolower(static_cast<unsigned char>(c)));
  return out;
}

bool known_type(const std::string& type) {
  return type == "dbc" || type == "ldf" || type == "a2l" || type == "modbus-edgex" ||
         type == "mapping";
}

// Value of --name=, or the first word that is not an option.
const char* selector_word(int count, char** words) {
  const char* name = vxcli_get_option(count, words, "name");
  if (name && *name) return name;
  return vxcli_database_positional(count, words, 0);
}

void write_resource(vxcli_json_writer* w, const DatabaseResource& r, bool summary, int items,
                    int members) {
  vxcli_json_writer_raw(w, "{\"name\":");
  vxcli_database_json_string(w, r.name);
  vxcli_json_writer_raw(w, ",\"type\":");
  vxcli_database_json_string(w, r.type);
  vxcli_json_writer_raw(w, ",\"path\":");
  vxcli_database_json_string(w, r.path);
  vxcli_json_writer_raw(w, ",\"source_hash\":");
  vxcli_database_json_string(w, r.source_hash);
  vxcli_json_writer_printf(w, ",\"loaded_at\":%lld", static_cast<long long>(r.loaded_at));
  if (summary) {
    const char* item_key = "items";
    const char* member_key = "members";
    if (r.type == "dbc") item_key = "messages", member_key = "signals";
    else if (r.type == "ldf") item_key = "frames", member_key = "signals";
    else if (r.type == "a2l") item_key = "measurements", member_key = "characteristics";
    else if (r.type == "modbus-edgex") item_key = "resources", member_key = "commands";
    vxcli_json_writer_printf(w, ",\"summary\":{\"%s\":%d,\"%s\":%d}", item_key, items, member_key,
                             members);
  }
  vxcli_json_writer_raw(w, "}");
}

int fail(const char* message) {
  vxcli_print_error("%s", message);
  return 1;
}

int load_command(const char* required_type, int count, char** words) {
  const char* file = vxcli_get_option(count, words, "file");
  if (!file || !*file) file = vxcli_database_positional(count, words, 0);
  if (!file || !*file) return fail("--file is required");
  char canonical[PATH_MAX];
  if (vxcli_database_canonical_path(file, canonical, sizeof canonical) != 0) {
    vxcli_print_error("database file not found: %s", file);
    return 1;
  }
  const char* type_option = vxcli_get_option(count, words, "type");
  std::string inferred = vxcli_database_extension_type(canonical);
  // The per-type loads have no --type: their own type is the only one.
  if (required_type && inferred != required_type) {
    vxcli_print_error("%s load requires a .%s file", required_type, required_type);
    return 1;
  }
  std::string type = required_type                     ? std::string(required_type)
                     : type_option && *type_option ? lowercase(type_option)
                                                   : inferred;
  if (type.empty()) {
    vxcli_print_error("cannot infer database type; use --type=%s", kTypeHint);
    return 1;
  }
  if (!known_type(type)) {
    vxcli_print_error("unknown database type '%s'; use --type=%s", type.c_str(), kTypeHint);
    return 1;
  }
  const char* name_option = vxcli_get_option(count, words, "name");
  std::string name =
      name_option && *name_option ? name_option : vxcli_database_default_name(canonical);
  if (name.size() > 127) return fail("database resource name is too long");

  DatabaseLoadResult result;
  char error[kErrorSize];
  if (vxcli_database_load_resource(canonical, name, type, result, error, sizeof error) != 0)
    return fail(error);
  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_printf(&w, "{\"status\":\"ok\",\"created\":%s,\"resource\":",
                             result.created ? "true" : "false");
    write_resource(&w, result.resource, true, result.items, result.members);
    vxcli_json_writer_raw(&w, "}\n");
    return vxcli_json_document_print(&w);
  }
  printf("%s database %s: %s (%d items, %d members)\n", result.created ? "Loaded" : "Refreshed",
         result.resource.name.c_str(), result.resource.path.c_str(), result.items,
         result.members);
  return 0;
}

// The resource that info and validate look at, inspected afresh.
struct Target {
  DatabaseResource resource;
  int32_t items = 0;
  int32_t members = 0;
};

int inspection_target(int count, char** words, Target& target) {
  const char* type_option = vxcli_get_option(count, words, "type");
  std::string type = type_option ? lowercase(type_option) : "";
  const char* file = vxcli_get_option(count, words, "file");
  char error[kErrorSize];
  if (file && *file) {
    char canonical[PATH_MAX];
    if (vxcli_database_canonical_path(file, canonical, sizeof canonical) != 0) {
      vxcli_print_error("database file not found: %s", file);
      return 1;
    }
    if (type.empty()) type = vxcli_database_extension_type(canonical);
    if (type.empty()) {
      vxcli_print_error("cannot infer database type; use --type=%s", kTypeHint);
      return 1;
    }
    char hash[65];
    if (vxcli_sha256_file(canonical, hash, sizeof hash, error, sizeof error) != 0)
      return fail(error);
    target.resource = {vxcli_database_default_name(canonical), type, canonical, 0, hash};
  } else {
    if (!type.empty() && !known_type(type)) {
      vxcli_print_error("unknown database type '%s'; use --type=%s", type.c_str(), kTypeHint);
      return 1;
    }
    std::vector<DatabaseResource> resources;
    if (vxcli_database_registry_read(resources, error, sizeof error) != 0) return fail(error);
    const char* selector = selector_word(count, words);
    const DatabaseResource* found = nullptr;
    if (selector && *selector) {
      for (const DatabaseResource& r : resources)
        if (r.name == selector) {
          found = &r;
          break;
        }
      if (!found) {
        vxcli_print_error("database resource not found: %s", selector);
        return 1;
      }
      if (!type.empty() && found->type != type) return fail("database resource has the wrong type");
    } else {
      int matches = 0;
      for (const DatabaseResource& r : resources)
        if (type.empty() || r.type == type) {
          if (!found) found = &r;
          matches++;
        }
      if (matches == 0) return fail("no matching database resource is loaded");
      if (matches > 1) return fail("multiple database resources match; specify a name");
    }
    target.resource = *found;
  }
  if (!known_type(target.resource.type)) {
    vxcli_print_error("unknown database type '%s'; use --type=%s", target.resource.type.c_str(),
                      kTypeHint);
    return 1;
  }
  if (vxcli_database_inspect_file(target.resource.path.c_str(), target.resource.type.c_str(),
                                  &target.items, &target.members, error, sizeof error) != 0) {
    vxcli_print_error("invalid %s database: %s", target.resource.type.c_str(), error);
    return 1;
  }
  return 0;
}

}  // namespace

int vxcli_database_load_command(int count, char** words) {
  return load_command(nullptr, count, words);
}

int vxcli_database_load_typed_command(const char* type, int count, char** words) {
  return load_command(type, count, words);
}

int vxcli_dbc_load_command(int count, char** words) { return load_command("dbc", count, words); }
int vxcli_ldf_load_command(int count, char** words) { return load_command("ldf", count, words); }
int vxcli_a2l_load_command(int count, char** words) { return load_command("a2l", count, words); }

int vxcli_database_unload_command(int count, char** words) {
  bool all = vxcli_has_flag(count, words, "all");
  const char* name = selector_word(count, words);
  if (!all && (!name || !*name)) return fail("resource name or --all is required");
  std::vector<DatabaseResource> resources;
  char error[kErrorSize];
  if (vxcli_database_registry_read(resources, error, sizeof error) != 0) return fail(error);
  const char* message;
  if (all) {
    resources.clear();
    message = "all database resources unloaded";
  } else {
    size_t before = resources.size();
    std::erase_if(resources, [&](const DatabaseResource& r) { return r.name == name; });
    if (resources.size() == before) {
      vxcli_print_error("database resource not found: %s", name);
      return 1;
    }
    message = "database resource unloaded";
  }
  if (vxcli_database_registry_write(resources, error, sizeof error) != 0) return fail(error);
  if (vxcli_json_mode()) printf("{\"status\":\"ok\",\"message\":\"%s\"}\n", message);
  else printf("OK: %s\n", message);
  return 0;
}

int vxcli_dbc_unload_command(int count, char** words) {
  return vxcli_database_unload_command(count, words);
}

int vxcli_database_list_command(int count, char** words) {
  const char* type = vxcli_get_option(count, words, "type");
  std::string filter = type ? lowercase(type) : "";
  std::vector<DatabaseResource> resources;
  char error[kErrorSize];
  if (vxcli_database_registry_read(resources, error, sizeof error) != 0) return fail(error);
  std::vector<const DatabaseResource*> shown;
  for (const DatabaseResource& r : resources)
    if (filter.empty() || r.type == filter) shown.push_back(&r);

  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_raw(&w, "{\"status\":\"ok\",\"resources\":[");
    for (size_t i = 0; i < shown.size(); i++) {
      if (i) vxcli_json_writer_char(&w, ',');
      write_resource(&w, *shown[i], false, 0, 0);
    }
    vxcli_json_writer_printf(&w, "],\"count\":%zu}\n", shown.size());
    return vxcli_json_document_print(&w);
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("name,type,path,loaded_at\n");
    for (const DatabaseResource* r : shown)
      printf("%s,%s,%s,%lld\n", vxcli_database_csv_field(r->name).c_str(),
             vxcli_database_csv_field(r->type).c_str(), vxcli_database_csv_field(r->path).c_str(),
             static_cast<long long>(r->loaded_at));
    return 0;
  }
  if (shown.empty()) {
    printf("No database resources loaded\n");
    return 0;
  }
  for (const DatabaseResource* r : shown)
    printf("%-24s %-8s %s\n", r->name.c_str(), r->type.c_str(), r->path.c_str());
  return 0;
}

namespace {

// Info and validate inspect the same way and differ only in how they report.
int inspect_command(int count, char** words, bool validate) {
  Target target;
  if (inspection_target(count, words, target) != 0) return 1;
  const DatabaseResource& r = target.resource;
  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_raw(&w, validate ? "{\"status\":\"ok\",\"valid\":true,\"resource\":"
                                       : "{\"status\":\"ok\",\"resource\":");
    write_resource(&w, r, true, target.items, target.members);
    vxcli_json_writer_raw(&w, "}\n");
    return vxcli_json_document_print(&w);
  }
  if (validate)
    printf("Valid %s database: %s (%d items, %d members)\n", r.type.c_str(), r.path.c_str(),
           target.items, target.members);
  else
    printf("Database %s (%s)\n  Path: %s\n  Items: %d\n  Members: %d\n", r.name.c_str(),
           r.type.c_str(), r.path.c_str(), target.items, target.members);
  return 0;
}

}  // namespace

int vxcli_database_info_command(int count, char** words) { return inspect_command(count, words, false); }
int vxcli_database_validate_command(int count, char** words) { return inspect_command(count, words, true); }
