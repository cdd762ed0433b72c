// Registry of typed database resources (DBC, LDF, A2L, EdgeX profiles,
// mapping files), kept as databases.json in the state directory, and the
// resolution of --database/--dbc/--ldf selectors against it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct DatabaseResource {
  std::string name;
  std::string type;  // "dbc", "ldf", "a2l", "modbus-edgex" or "mapping"
  std::string path;  // canonical absolute path
  int64_t loaded_at = 0;
  std::string source_hash;  // lowercase hex SHA-256
};

struct VXCLI_DatabaseResourceInfo {
  char name[128];
  char type[16];
  char path[4096];
  char source_hash[65];
  int64_t loaded_at;
  int32_t items;    // messages, frames, measurements, profile resources; -1 when not inspected
  int32_t members;  // signals, characteristics, profile commands; -1 when not inspected
};

// Path of databases.json; 0, or -1 with a message.
int vxcli_database_registry_path(char* out, size_t size, char* error, size_t error_size);
// A missing registry is an empty one. 0, or -1 with a message.
int vxcli_database_registry_read(std::vector<DatabaseResource>& resources, char* error,
                                 size_t error_size);
// Writes through "<registry>.tmp" and a rename, so a failure leaves the old file.
int vxcli_database_registry_write(const std::vector<DatabaseResource>& resources, char* error,
                                  size_t error_size);

// Counts the registry writes of this process, so that callers keeping
// resolved answers notice changes made here at once.
uint64_t vxcli_database_registry_generation();

// Type word of a file name's extension ("" when none fits).
std::string vxcli_database_extension_type(const char* file);
// Registry name derived from a file name.
std::string vxcli_database_default_name(const char* file);
// Canonical absolute path of an existing, readable regular file; 0 or -1.
int vxcli_database_canonical_path(const char* file, char* out, size_t size);
// Parses the file with the parser of its type. 0 with the counts, or -1 with
// the parser's message.
int vxcli_database_inspect_file(const char* path, const char* type, int32_t* items,
                                int32_t* members, char* error, size_t error_size);

// Selector: a registered name, a database file, or empty for the sole
// resource of the type (type null or "" = any). outName receives the resource
// name, or for an unregistered file its default name. 0, or -1 with a message.
int vxcli_database_resolve(const char* selector, const char* type, char* outPath,
                           size_t outPathSize, char* outName, size_t outNameSize, char* errorText,
                           size_t errorSize);

struct DatabaseLoadResult {
  DatabaseResource resource;
  int32_t items = 0;
  int32_t members = 0;
  bool created = false;
};
// Validates, hashes and registers (or refreshes) a file whose canonical path,
// resource name and type are settled. 0, or -1 with a message.
int vxcli_database_load_resource(const char* canonical, const std::string& name,
                                 const std::string& type, DatabaseLoadResult& result, char* error,
                                 size_t error_size);

// Library forms of the commands. 0, or -1 with a message.
int vxcli_database_resource_load(const char* file, const char* name, const char* type,
                                 VXCLI_DatabaseResourceInfo* info, int* created, char* errorText,
                                 size_t errorSize);
int vxcli_database_resource_unload(const char* name, char* errorText, size_t errorSize);
// Fills up to capacity records (items/members -1: files are not parsed for a
// listing); count receives the number of resources, also when capacity is too small.
int vxcli_database_resource_list(VXCLI_DatabaseResourceInfo* infos, size_t capacity,
                                 size_t* count, char* errorText, size_t errorSize);
// Inspects the registered file afresh for items and members.
int vxcli_database_resource_info(const char* name, VXCLI_DatabaseResourceInfo* info,
                                 char* errorText, size_t errorSize);
