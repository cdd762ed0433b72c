#include "topology.h"

#include <yaml.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "shm.h"
#include "vxapi.h"

namespace vxsim {

namespace {

std::string default_unique_id(const std::string& serial) {
  std::string digits;
  for (char c : serial)
    if (std::isalnum(static_cast<unsigned char>(c))) digits += static_cast<char>(std::toupper(c));
  if (digits.size() > 9) digits = digits.substr(digits.size() - 9);
  return "VXS" + std::string(9 - digits.size(), '0') + digits;
}

DeviceSpec default_device(const std::string& serial) {
  DeviceSpec d;
  d.serial = serial;
  d.unique_id = default_unique_id(serial);
  d.name = "Virtual";
  for (int k = 0; k < 8; ++k) {
    PortSpec p;
    p.capability = (k == 4 || k == 5) ? (VX_CAP_LIN | VX_CAP_VIRT)
                                      : (VX_CAP_CANFD | VX_CAP_CAN | VX_CAP_VIRT);
    p.bus = k;
    d.ports.push_back(p);
  }
  return d;
}

// Small view over a loaded libyaml document.
struct Doc {
  yaml_document_t* doc;
  yaml_node_t* node(int id) const { return yaml_document_get_node(doc, id); }
  static std::string scalar(yaml_node_t* n) {
    if (!n || n->type != YAML_SCALAR_NODE) return {};
    return std::string(reinterpret_cast<char*>(n->data.scalar.value), n->data.scalar.length);
  }
  yaml_node_t* get(yaml_node_t* map, const char* key) const {
    if (!map || map->type != YAML_MAPPING_NODE) return nullptr;
    for (auto* p = map->data.mapping.pairs.start; p < map->data.mapping.pairs.top; ++p)
      if (scalar(node(p->key)) == key) return node(p->value);
    return nullptr;
  }
};

bool parse_uint(const std::string& s, unsigned long max, unsigned long& out) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s.c_str(), &end, 0);
  if (errno || *end || s[0] == '-' || v > max) return false;
  out = v;
  return true;
}

bool capability_word(std::string w, uint16_t& caps) {
  for (auto& c : w) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  static const std::map<std::string, uint16_t> names = {
      {"LIN", VX_CAP_LIN}, {"CAN", VX_CAP_CAN}, {"CANFD", VX_CAP_CANFD}, {"FR", VX_CAP_FR},
      {"MB", VX_CAP_MB},   {"ETH", VX_CAP_ETH}, {"AIO", VX_CAP_AIO},     {"DIO", VX_CAP_DIO},
      {"VIRT", VX_CAP_VIRT}, {"RMT", VX_CAP_RMT}};
  auto it = names.find(w);
  if (it != names.end()) {
    caps |= it->second;
    return true;
  }
  unsigned long v;
  if (!parse_uint(w, 0xFFFF, v)) return false;
  caps |= static_cast<uint16_t>(v);
  return true;
}

// A capability is a number, a word list "CANFD|CAN|VIRT" or a YAML sequence of words.
bool parse_capability(const Doc& d, yaml_node_t* n, uint16_t& caps) {
  caps = 0;
  if (!n) return false;
  if (n->type == YAML_SEQUENCE_NODE) {
    for (auto* i = n->data.sequence.items.start; i < n->data.sequence.items.top; ++i)
      if (!capability_word(Doc::scalar(d.node(*i)), caps)) return false;
    return true;
  }
  std::string s = Doc::scalar(n), word;
  std::stringstream ss(s);
  bool any = false;
  while (std::getline(ss, word, '|')) {
    while (!word.empty() && std::isspace(static_cast<unsigned char>(word.back()))) word.pop_back();
    while (!word.empty() && std::isspace(static_cast<unsigned char>(word.front()))) word.erase(0, 1);
    if (word.empty() || !capability_word(word, caps)) return false;
    any = true;
  }
  return any;
}

int fail(std::string& error, const std::string& text) {
  error = text;
  return -1;
}

int parse_device(const Doc& d, yaml_node_t* n, size_t index, DeviceSpec& dev, std::string& error) {
  std::string where = "device " + std::to_string(index + 1);
  if (!n || n->type != YAML_MAPPING_NODE) return fail(error, where + ": expected a mapping");
  dev.serial = Doc::scalar(d.get(n, "serial"));
  if (dev.serial.empty() || dev.serial.size() > 15)
    return fail(error, where + ": serial must have 1 to 15 characters");
  for (char c : dev.serial)
    if (c < 0x21 || c > 0x7E) return fail(error, where + ": serial must be printable without blanks");
  where = "device " + dev.serial;
  dev.unique_id = Doc::scalar(d.get(n, "unique_id"));
  if (dev.unique_id.empty()) dev.unique_id = default_unique_id(dev.serial);
  if (dev.unique_id.size() != 12) return fail(error, where + ": unique_id must have 12 characters");
  for (char c : dev.unique_id)
    if (!std::isalnum(static_cast<unsigned char>(c)))
      return fail(error, where + ": unique_id must be letters and digits");
  if (auto* nm = d.get(n, "name")) dev.name = Doc::scalar(nm);
  if (dev.name.empty()) dev.name = "Virtual";
  if (dev.name.size() > 40) return fail(error, where + ": name is longer than 40 characters");
  if (auto* fw = d.get(n, "firmware")) {
    unsigned v[4] = {0, 0, 0, 0};
    char extra;
    int got = std::sscanf(Doc::scalar(fw).c_str(), "%u.%u.%u.%u%c", &v[0], &v[1], &v[2], &v[3], &extra);
    if (got < 1 || got > 4 || v[0] > 255 || v[1] > 255 || v[2] > 255 || v[3] > 255)
      return fail(error, where + ": firmware must look like 3.2.1.0");
    for (int i = 0; i < 4; ++i) dev.firmware[i] = static_cast<uint8_t>(v[i]);
  }
  unsigned long v;
  if (auto* x = d.get(n, "vid")) {
    if (!parse_uint(Doc::scalar(x), 0xFFFF, v)) return fail(error, where + ": bad vid");
    dev.usb_vid = static_cast<uint16_t>(v);
  }
  if (auto* x = d.get(n, "pid")) {
    if (!parse_uint(Doc::scalar(x), 0xFFFF, v)) return fail(error, where + ": bad pid");
    dev.usb_pid = static_cast<uint16_t>(v);
  }
  if (auto* x = d.get(n, "generation")) {
    unsigned major = 0, minor = 0;
    char extra;
    int got = std::sscanf(Doc::scalar(x).c_str(), "%u.%u%c", &major, &minor, &extra);
    if (got < 1 || got > 2 || major == 0 || major > 25 || minor > 9)
      return fail(error, where + ": generation must look like 3 or 2.5");
    dev.generation = static_cast<uint8_t>(major);
    dev.generation_minor = static_cast<uint8_t>(minor);
  }
  yaml_node_t* ports = d.get(n, "ports");
  if (!ports || ports->type != YAML_SEQUENCE_NODE) return fail(error, where + ": ports must be a list");
  for (auto* i = ports->data.sequence.items.start; i < ports->data.sequence.items.top; ++i) {
    yaml_node_t* pn = d.node(*i);
    std::string pw = where + " port " + std::to_string(dev.ports.size());
    if (!pn || pn->type != YAML_MAPPING_NODE) return fail(error, pw + ": expected a mapping");
    PortSpec p;
    if (!parse_capability(d, d.get(pn, "capability"), p.capability))
      return fail(error, pw + ": bad or missing capability");
    bool can = p.capability & (VX_CAP_CAN | VX_CAP_CANFD), lin = p.capability & VX_CAP_LIN;
    if (can == lin) return fail(error, pw + ": a port carries either CAN or LIN");
    if (p.capability & VX_CAP_CANFD) p.capability |= VX_CAP_CAN;
    yaml_node_t* bn = d.get(pn, "bus");
    if (!bn || !parse_uint(Doc::scalar(bn), 255, v)) return fail(error, pw + ": bus must be 0..255");
    p.bus = static_cast<int>(v);
    dev.ports.push_back(p);
  }
  if (dev.ports.empty() || dev.ports.size() > kMaxPorts)
    return fail(error, where + ": a device has 1 to 8 ports");
  return 0;
}

}  // namespace

Topology topology_default() {
  Topology t;
  t.devices.push_back(default_device("10356"));
  t.devices.push_back(default_device("10357"));
  return t;
}

int topology_parse(const std::string& text, Topology& out, std::string& error) {
  yaml_parser_t parser;
  yaml_document_t document;
  if (!yaml_parser_initialize(&parser)) return fail(error, "out of memory");
  yaml_parser_set_input_string(&parser, reinterpret_cast<const unsigned char*>(text.data()), text.size());
  if (!yaml_parser_load(&parser, &document)) {
    error = std::string("YAML error: ") + (parser.problem ? parser.problem : "unknown") + " at line " +
            std::to_string(parser.problem_mark.line + 1);
    yaml_parser_delete(&parser);
    return -1;
  }
  Doc d{&document};
  int rc = 0;
  Topology t;
  yaml_node_t* root = yaml_document_get_root_node(&document);
  yaml_node_t* devices = d.get(root, "devices");
  if (!devices || devices->type != YAML_SEQUENCE_NODE) {
    rc = fail(error, "topology needs a 'devices' list");
  } else {
    for (auto* i = devices->data.sequence.items.start; rc == 0 && i < devices->data.sequence.items.top; ++i) {
      DeviceSpec dev;
      rc = parse_device(d, d.node(*i), t.devices.size(), dev, error);
      if (rc == 0) t.devices.push_back(std::move(dev));
    }
  }
  if (rc == 0) {
    std::set<std::string> serials;
    std::map<int, bool> bus_is_lin;
    if (t.devices.empty() || t.devices.size() > kMaxDevices) rc = fail(error, "topology has 1 to 32 devices");
    for (auto& dev : t.devices) {
      if (rc) break;
      if (!serials.insert(dev.serial).second) rc = fail(error, "duplicate serial " + dev.serial);
      for (auto& p : dev.ports) {
        bool lin = p.capability & VX_CAP_LIN;
        auto [it, fresh] = bus_is_lin.emplace(p.bus, lin);
        if (!fresh && it->second != lin && rc == 0)
          rc = fail(error, "bus " + std::to_string(p.bus) + " mixes CAN and LIN ports");
      }
    }
  }
  yaml_document_delete(&document);
  yaml_parser_delete(&parser);
  if (rc == 0) out = std::move(t);
  return rc;
}

int topology_load(const std::string& path, Topology& out, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return fail(error, "cannot read topology file " + path);
  std::stringstream s;
  s << in.rdbuf();
  int rc = topology_parse(s.str(), out, error);
  if (rc) error = path + ": " + error;
  return rc;
}

}  // namespace vxsim
