// UDS service definitions: named requests read from and written to a small XML
// file (<services><service id="0x22" name="..." .../></services>).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct vxcli_uds_service {
  uint8_t id;                 // service identifier
  std::string name;           // unique, matched without regard to case
  std::string alias;          // optional short name, same matching
  std::vector<uint8_t> data;  // fixed bytes after the service identifier
  std::string params;         // what the user appends, for help
  std::string description;
};

constexpr size_t VXCLI_UDS_MAX_SERVICES = 512;

// 0, or -1 with a message naming the line.
int vxcli_uds_services_parse(const std::string& xml, std::vector<vxcli_uds_service>* out,
                             char* error_text, size_t error_size);
std::string vxcli_uds_services_to_xml(const std::vector<vxcli_uds_service>& services);
const vxcli_uds_service* vxcli_uds_services_find(const std::vector<vxcli_uds_service>& services,
                                                 const char* name);

// File holding definitions loaded with "uds load" (in the configuration directory).
int vxcli_uds_services_user_path(char* out, size_t size);
// The definitions in force: the loaded file when there is one, else the shipped
// res/uds.xml. *source receives the path read. 0 or -1 with a message.
int vxcli_uds_services_current(std::vector<vxcli_uds_service>* out, std::string* source,
                               char* error_text, size_t error_size);
int vxcli_uds_services_read_file(const char* path, std::vector<vxcli_uds_service>* out,
                                 char* error_text, size_t error_size);
int vxcli_uds_services_write_file(const char* path, const std::vector<vxcli_uds_service>& services,
                                  char* error_text, size_t error_size);
