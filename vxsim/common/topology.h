// Which virtual devices exist and how their ports are wired to buses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vxsim {

struct PortSpec {
  uint16_t capability = 0;  // VX_CAP_* bits
  int bus = 0;              // ports with the same bus number see each other's frames
};

struct DeviceSpec {
  std::string serial;       // 1..15 printable characters
  std::string unique_id;    // 12 letters or digits
  std::string name;         // channel names are "<name> <serial> Port <n>"
  uint8_t firmware[4] = {3, 2, 1, 0};
  uint16_t usb_vid = 0x5658;
  uint16_t usb_pid = 0x0101;
  uint8_t generation = 3;
  uint8_t generation_minor = 0;
  std::vector<PortSpec> ports;
};

struct Topology {
  std::vector<DeviceSpec> devices;
};

// Two devices "10356" and "10357", 8 ports each: 0-3 and 6-7 CAN FD, 4-5
// LIN; port k of every device on bus k.
Topology topology_default();

// Reads a YAML topology file; 0, or -1 with a message in `error`.
int topology_load(const std::string& path, Topology& out, std::string& error);
// Parses YAML text (used by topology_load and by tests).
int topology_parse(const std::string& text, Topology& out, std::string& error);

}  // namespace vxsim
