// databases.json: reading, atomic writing, type and name rules, resolution of
// selectors, and the library forms of load/unload/list/info.
#include "database/registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>

#include "database/dbc.h"
#include "database/inspect.h"
#include "database/sha256.h"
#include "json/json.h"
#include "project/dirs.h"

namespace {

constexpr int kMaxTokens = 2048;
// Tokens of one resource object (the object, five keys, five values) and of
// the frame around them; the registry never grows past what it can read back.
constexpr int kTokensPerResource = 11;
constexpr size_t kMaxResources = (kMaxTokens - 5) / kTokensPerResource;

uint64_t g_generation = 0;

void set_error(char* error, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void set_error(char* error, size_t size, const char* format, ...) {
  if (!error || !size) return;
  va_list args;
  va_start(args, format);
  vsnprintf(error, size, format, args);
  va_end(args);
}

void copy_text(char* out, size_t size, const std::string& text) {
  if (!out || !size) return;
  size_t n = text.size() < size - 1 ? text.size() : size - 1;
  memcpy(out, text.data(), n);
  out[n] = 0;
}

bool read_whole_file(const char* path, std::string& out, bool* missing) {
  *missing = false;
  FILE* file = fopen(path, "rb");
  if (!file) {
    *missing = errno == ENOENT;
    return false;
  }
  char buffer[16384];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) out.append(buffer, n);
  bool ok = !ferror(file);
  fclose(file);
  return ok;
}

bool json_text(const char* text, const vxcli_json_token* tokens, int index, std::string& out) {
  if (index < 0 || tokens[index].type != VXCLI_JSON_STRING) return false;
  size_t size = size_t(tokens[index].end - tokens[index].start) + 1;
  std::unique_ptr<char[]> buffer(new char[size]);
  if (vxcli_json_string(text, &tokens[index], buffer.get(), size) != 0) return false;
  out = buffer.get();
  return true;
}

std::string lowercase(const char* text) {
  std::string out = text ? text : "";
  for (char& c : out) c = char(tolower(static_cast<unsigned char>(c)));
  return out;
}

const char* base_name(const char* file) {
  const char* base = file;
  for (const char* p = file; *p; p++)
    if (*p == '/' || *p == '\\') base = p + 1;
  return base;
}

void fill_info(VXCLI_DatabaseResourceInfo* info, const DatabaseResource& resource, int32_t items,
               int32_t members) {
  if (!info) return;
  memset(info, 0, sizeof *info);
  copy_text(info->name, sizeof info->name, resource.name);
  copy_text(info->type, sizeof info->type, resource.type);
  copy_text(info->path, sizeof info->path, resource.path);
  copy_text(info->source_hash, sizeof info->source_hash, resource.source_hash);
  info->loaded_at = resource.loaded_at;
  info->items = items;
  info->members = members;
}

bool type_matches(const DatabaseResource& resource, const char* type) {
  return !type || !*type || resource.type == type;
}

}  // namespace

int vxcli_database_registry_path(char* out, size_t size, char* error, size_t error_size) {
  char directory[1024];
  if (vxcli_get_state_dir(directory, sizeof directory) != 0) {
    set_error(error, error_size, "cannot resolve VXCLI state directory");
    return -1;
  }
  if (snprintf(out, size, "%s/databases.json", directory) >= int(size)) {
    set_error(error, error_size, "cannot resolve VXCLI state directory");
    return -1;
  }
  return 0;
}

int vxcli_database_registry_read(std::vector<DatabaseResource>& resources, char* error,
                                 size_t error_size) {
  resources.clear();
  char path[1100];
  if (vxcli_database_registry_path(path, sizeof path, error, error_size) != 0) return -1;
  std::string text;
  bool missing = false;
  if (!read_whole_file(path, text, &missing)) {
    if (missing) return 0;
    set_error(error, error_size, "cannot read database registry");
    return -1;
  }
  if (text.find('\0') != std::string::npos) {
    set_error(error, error_size, "database registry is invalid JSON");
    return -1;
  }
  std::unique_ptr<vxcli_json_token[]> tokens(new vxcli_json_token[kMaxTokens]);
  int count = vxcli_json_parse(text.c_str(), tokens.get(), kMaxTokens);
  if (count == -2) {
    set_error(error, error_size, "database registry is too large to read");
    return -1;
  }
  if (count < 1) {
    set_error(error, error_size, "database registry is invalid JSON");
    return -1;
  }
  const char* json = text.c_str();
  int list = vxcli_json_object_get(json, tokens.get(), 0, "resources");
  if (list < 0 || tokens[list].type != VXCLI_JSON_ARRAY) {
    set_error(error, error_size, "database registry has no resources array");
    return -1;
  }
  int element = list + 1;
  for (int i = 0; i < tokens[list].size; i++, element = vxcli_json_next(tokens.get(), element)) {
    DatabaseResource resource;
    if (element <= 0 || element >= count || tokens[element].type != VXCLI_JSON_OBJECT ||
        !json_text(json, tokens.get(), vxcli_json_object_get(json, tokens.get(), element, "name"),
                   resource.name) ||
        !json_text(json, tokens.get(), vxcli_json_object_get(json, tokens.get(), element, "type"),
                   resource.type) ||
        !json_text(json, tokens.get(), vxcli_json_object_get(json, tokens.get(), element, "path"),
                   resource.path)) {
      resources.clear();
      set_error(error, error_size, "database registry contains an invalid resource");
      return -1;
    }
    int loaded = vxcli_json_object_get(json, tokens.get(), element, "loaded_at");
    int64_t when = 0;
    if (loaded >= 0 && tokens[loaded].type == VXCLI_JSON_PRIMITIVE &&
        vxcli_json_integer(json, &tokens[loaded], &when) == 0)
      resource.loaded_at = when;
    std::string hash;
    if (json_text(json, tokens.get(), vxcli_json_object_get(json, tokens.get(), element,
                                                            "source_hash"),
                  hash))
      resource.source_hash = hash.substr(0, 64);
    resources.push_back(std::move(resource));
  }
  return 0;
}

int vxcli_database_registry_write(const std::vector<DatabaseResource>& resources, char* error,
                                  size_t error_size) {
  char path[1100], temporary[1110];
  if (vxcli_database_registry_path(path, sizeof path, error, error_size) != 0) return -1;
  snprintf(temporary, sizeof temporary, "%s.tmp", path);

  vxcli_json_writer writer{};
  if (vxcli_json_writer_init(&writer, 4096, 64u << 20) != 0) {
    set_error(error, error_size, "cannot create database registry");
    return -1;
  }
  vxcli_json_writer_raw(&writer, "{\n  \"version\": 1,\n  \"resources\": [");
  for (size_t i = 0; i < resources.size(); i++) {
    const DatabaseResource& r = resources[i];
    vxcli_json_writer_raw(&writer, i ? ",\n    {\"name\":" : "\n    {\"name\":");
    vxcli_json_writer_string(&writer, r.name.c_str());
    vxcli_json_writer_raw(&writer, ",\"type\":");
    vxcli_json_writer_string(&writer, r.type.c_str());
    vxcli_json_writer_raw(&writer, ",\"path\":");
    vxcli_json_writer_string(&writer, r.path.c_str());
    vxcli_json_writer_raw(&writer, ",\"source_hash\":");
    vxcli_json_writer_string(&writer, r.source_hash.c_str());
    vxcli_json_writer_printf(&writer, ",\"loaded_at\":%lld}", static_cast<long long>(r.loaded_at));
  }
  vxcli_json_writer_raw(&writer, resources.empty() ? "]\n}\n" : "\n  ]\n}\n");
  if (!vxcli_json_writer_ok(&writer)) {
    vxcli_json_writer_free(&writer);
    set_error(error, error_size, "cannot create database registry");
    return -1;
  }

  int fd = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    vxcli_json_writer_free(&writer);
    set_error(error, error_size, "cannot create database registry");
    return -1;
  }
  const char* data = vxcli_json_writer_data(&writer);
  size_t length = vxcli_json_writer_length(&writer);
  bool ok = true;
  int failure = 0;
  for (size_t done = 0; done < length && ok;) {
    ssize_t n = write(fd, data + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      failure = n < 0 ? errno : ENOSPC;
    } else {
      done += size_t(n);
    }
  }
  vxcli_json_writer_free(&writer);
  if (ok && fsync(fd) != 0) {
    ok = false;
    failure = errno;
  }
  if (close(fd) != 0 && ok) {
    ok = false;
    failure = errno;
  }
  if (!ok) {
    unlink(temporary);
    set_error(error, error_size, "cannot write database registry: %s", strerror(failure));
    return -1;
  }
  if (rename(temporary, path) != 0) {
    unlink(temporary);
    set_error(error, error_size, "cannot replace database registry");
    return -1;
  }
  g_generation++;
  return 0;
}

uint64_t vxcli_database_registry_generation() { return g_generation; }

std::string vxcli_database_extension_type(const char* file) {
  if (!file) return "";
  const char* base = base_name(file);
  const char* dot = strrchr(base, '.');
  if (!dot) return "";
  std::string extension = lowercase(dot + 1);
  if (extension == "dbc" || extension == "ldf" || extension == "a2l") return extension;
  if (extension == "json" || extension == "yaml" || extension == "yml") return "mapping";
  return "";
}

std::string vxcli_database_default_name(const char* file) {
  std::string name = base_name(file ? file : "");
  size_t dot = name.rfind('.');
  if (dot != std::string::npos) name.erase(dot);
  for (char& c : name)
    if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_') c = '_';
  if (name.empty()) name = "database";
  if (name.size() > 127) name.resize(127);  // what the info record can hold
  return name;
}

int vxcli_database_canonical_path(const char* file, char* out, size_t size) {
  if (!file || !*file || !out || size == 0) return -1;
  char resolved[PATH_MAX];
  if (!realpath(file, resolved)) return -1;
  struct stat info {};
  if (stat(resolved, &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  int fd = open(resolved, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  close(fd);
  if (strlen(resolved) >= size) return -1;
  strcpy(out, resolved);
  return 0;
}

int vxcli_database_inspect_file(const char* path, const char* type, int32_t* items,
                                int32_t* members, char* error, size_t error_size) {
  if (items) *items = 0;
  if (members) *members = 0;
  std::string kind = type ? type : "";
  if (kind == "dbc") {
    try {
      DBCIterator dbc{std::string(path)};
      size_t signals = 0;
      for (const Message& message : dbc) signals += message.signals.size();
      // Any text "parses"; a file without a single message is not a CAN database.
      if (dbc.size() == 0) {
        set_error(error, error_size, "DBC file defines no messages");
        return -1;
      }
      if (items) *items = int32_t(dbc.size() > INT32_MAX ? INT32_MAX : dbc.size());
      if (members) *members = int32_t(signals > INT32_MAX ? INT32_MAX : signals);
      return 0;
    } catch (const std::exception&) {
      set_error(error, error_size, "DBC parser rejected the file");
      return -1;
    }
  }
  if (kind == "ldf") {
    uint32_t frames = 0, signals = 0;
    char message[256] = "";
    if (vxcli_ldf_inspect_file(path, &frames, &signals, message, sizeof message) != 0) {
      set_error(error, error_size, "%s", message[0] ? message : "LDF parser rejected the file");
      return -1;
    }
    if (items) *items = int32_t(frames > INT32_MAX ? INT32_MAX : frames);
    if (members) *members = int32_t(signals > INT32_MAX ? INT32_MAX : signals);
    return 0;
  }
  // A2L and EdgeX profiles get their inspectors with their subsystems;
  // mapping files have no validator.
  set_error(error, error_size, "database type is recognized but not implemented");
  return -1;
}

int vxcli_database_resolve(const char* selector, const char* type, char* outPath,
                           size_t outPathSize, char* outName, size_t outNameSize, char* errorText,
                           size_t errorSize) {
  if (outPath && outPathSize) outPath[0] = 0;
  if (outName && outNameSize) outName[0] = 0;
  std::vector<DatabaseResource> resources;
  if (vxcli_database_registry_read(resources, errorText, errorSize) != 0) return -1;
  bool any_type = !type || !*type;
  if (selector && *selector) {
    for (const DatabaseResource& resource : resources) {
      if (resource.name != selector) continue;
      if (!any_type && resource.type != type) {
        set_error(errorText, errorSize, "database resource has the wrong type");
        return -1;
      }
      copy_text(outPath, outPathSize, resource.path);
      copy_text(outName, outNameSize, resource.name);
      return 0;
    }
    char path[PATH_MAX];
    if (vxcli_database_canonical_path(selector, path, sizeof path) == 0 &&
        (any_type || vxcli_database_extension_type(selector) == type)) {
      if (strlen(path) >= outPathSize) {
        set_error(errorText, errorSize, "database path is too long");
        return -1;
      }
      copy_text(outPath, outPathSize, path);
      copy_text(outName, outNameSize, vxcli_database_default_name(path));
      return 0;
    }
    set_error(errorText, errorSize, "database resource or file was not found");
    return -1;
  }
  const DatabaseResource* match = nullptr;
  int matches = 0;
  for (const DatabaseResource& resource : resources) {
    if (!type_matches(resource, type)) continue;
    if (!match) match = &resource;
    matches++;
  }
  if (matches == 0) {
    set_error(errorText, errorSize, "no matching database resource is loaded");
    return -1;
  }
  if (matches > 1) {
    set_error(errorText, errorSize, "multiple database resources match; use --database=<name>");
    return -1;
  }
  copy_text(outPath, outPathSize, match->path);
  copy_text(outName, outNameSize, match->name);
  return 0;
}

// ---- library forms ----

int vxcli_database_load_resource(const char* canonical, const std::string& name,
                                 const std::string& type, DatabaseLoadResult& result, char* error,
                                 size_t error_size) {
  char message[256];
  if (vxcli_database_inspect_file(canonical, type.c_str(), &result.items, &result.members, message,
                                  sizeof message) != 0) {
    set_error(error, error_size, "invalid %s database: %s", type.c_str(), message);
    return -1;
  }
  char hash[65];
  if (vxcli_sha256_file(canonical, hash, sizeof hash, error, error_size) != 0) return -1;
  std::vector<DatabaseResource> resources;
  if (vxcli_database_registry_read(resources, error, error_size) != 0) return -1;
  int64_t now = int64_t(time(nullptr));
  DatabaseResource* target = nullptr;
  for (DatabaseResource& resource : resources) {
    if (resource.name == name) {
      if (resource.path != canonical || resource.type != type) {
        set_error(error, error_size, "database name '%s' already refers to another resource",
                  name.c_str());
        return -1;
      }
      target = &resource;
      break;
    }
    if (resource.path == canonical) {  // a known file under another name keeps that name
      target = &resource;
      target->type = type;
      break;
    }
  }
  if (target) {
    target->loaded_at = now;
    target->source_hash = hash;
    result.created = false;
    result.resource = *target;
  } else {
    if (resources.size() >= kMaxResources) {
      set_error(error, error_size, "database registry is full (%zu resources)", kMaxResources);
      return -1;
    }
    resources.push_back({name, type, canonical, now, hash});
    result.created = true;
    result.resource = resources.back();
  }
  return vxcli_database_registry_write(resources, error, error_size);
}

int vxcli_database_resource_load(const char* file, const char* name, const char* type,
                                 VXCLI_DatabaseResourceInfo* info, int* created, char* errorText,
                                 size_t errorSize) {
  if (created) *created = 0;
  if (!file || !*file) {
    set_error(errorText, errorSize, "database file is required");
    return -1;
  }
  char canonical[PATH_MAX];
  if (vxcli_database_canonical_path(file, canonical, sizeof canonical) != 0) {
    set_error(errorText, errorSize, "database file was not found");
    return -1;
  }
  std::string kind = type && *type ? lowercase(type) : vxcli_database_extension_type(canonical);
  if (kind.empty()) {
    set_error(errorText, errorSize, "cannot infer database type");
    return -1;
  }
  std::string resource_name = name && *name ? name : vxcli_database_default_name(canonical);
  if (resource_name.size() > 127) {
    set_error(errorText, errorSize, "database resource name is too long");
    return -1;
  }
  DatabaseLoadResult result;
  char message[512];
  if (vxcli_database_load_resource(canonical, resource_name, kind, result, message,
                                   sizeof message) != 0) {
    if (strncmp(message, "database name '", 15) == 0)
      set_error(errorText, errorSize, "database name already refers to another resource");
    else
      set_error(errorText, errorSize, "%s", message);
    return -1;
  }
  fill_info(info, result.resource, result.items, result.members);
  if (created) *created = result.created ? 1 : 0;
  return 0;
}

int vxcli_database_resource_unload(const char* name, char* errorText, size_t errorSize) {
  if (!name || !*name) {
    set_error(errorText, errorSize, "database resource name is required");
    return -1;
  }
  std::vector<DatabaseResource> resources;
  if (vxcli_database_registry_read(resources, errorText, errorSize) != 0) return -1;
  for (size_t i = 0; i < resources.size(); i++) {
    if (resources[i].name != name) continue;
    resources.erase(resources.begin() + long(i));
    return vxcli_database_registry_write(resources, errorText, errorSize);
  }
  set_error(errorText, errorSize, "database resource was not found");
  return -1;
}

int vxcli_database_resource_list(VXCLI_DatabaseResourceInfo* infos, size_t capacity,
                                 size_t* count, char* errorText, size_t errorSize) {
  if (!count || (capacity > 0 && !infos)) {
    set_error(errorText, errorSize, "invalid database list buffer");
    return -1;
  }
  *count = 0;
  std::vector<DatabaseResource> resources;
  if (vxcli_database_registry_read(resources, errorText, errorSize) != 0) return -1;
  *count = resources.size();
  if (resources.size() > capacity) {
    set_error(errorText, errorSize, "database list capacity is too small");
    return -1;
  }
  for (size_t i = 0; i < resources.size(); i++) fill_info(&infos[i], resources[i], -1, -1);
  return 0;
}

int vxcli_database_resource_info(const char* name, VXCLI_DatabaseResourceInfo* info,
                                 char* errorText, size_t errorSize) {
  if (!name || !*name) {
    set_error(errorText, errorSize, "database resource name is required");
    return -1;
  }
  std::vector<DatabaseResource> resources;
  if (vxcli_database_registry_read(resources, errorText, errorSize) != 0) return -1;
  for (const DatabaseResource& resource : resources) {
    if (resource.name != name) continue;
    int32_t items = 0, members = 0;
    char message[256];
    if (vxcli_database_inspect_file(resource.path.c_str(), resource.type.c_str(), &items, &members,
                                    message, sizeof message) != 0) {
      set_error(errorText, errorSize, "invalid %s database: %s", resource.type.c_str(), message);
      return -1;
    }
    fill_info(info, resource, items, members);
    return 0;
  }
  set_error(errorText, errorSize, "database resource was not found");
  return -1;
}
