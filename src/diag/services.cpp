// Service definitions. The XML reader understands exactly the shape the writer
// produces plus what hand editing adds: comments, a declaration, either quote,
// entities, and text content as a description.
#include "diag/services.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>

#include "project/dirs.h"

namespace {

struct Reader {
  const std::string& s;
  size_t pos = 0;
  char* error_text;
  size_t error_size;

  size_t line_at(size_t p) const {
    size_t n = 1;
    for (size_t i = 0; i < p && i < s.size(); i++)
      if (s[i] == '\n') n++;
    return n;
  }
  int fail(size_t at, const char* what) {
    snprintf(error_text, error_size, "line %zu: %s", line_at(at), what);
    return -1;
  }
  void skip_space() {
    while (pos < s.size() && isspace(static_cast<unsigned char>(s[pos]))) pos++;
  }
  bool starts(const char* t) const { return s.compare(pos, strlen(t), t) == 0; }
};

bool decode_entities(const std::string& raw, std::string* out) {
  out->clear();
  for (size_t i = 0; i < raw.size(); i++) {
    if (raw[i] != '&') {
      *out += raw[i];
      continue;
    }
    size_t semi = raw.find(';', i);
    if (semi == std::string::npos) return false;
    std::string e = raw.substr(i + 1, semi - i - 1);
    if (e == "amp") *out += '&';
    else if (e == "lt") *out += '<';
    else if (e == "gt") *out += '>';
    else if (e == "quot") *out += '"';
    else if (e == "apos") *out += '\'';
    else if (e.size() > 1 && e[0] == '#') {
      char* end = nullptr;
      long v = e[1] == 'x' ? strtol(e.c_str() + 2, &end, 16) : strtol(e.c_str() + 1, &end, 10);
      if (!end || *end || v <= 0 || v > 0x7F) return false;  // ASCII is all a service needs
      *out += static_cast<char>(v);
    } else {
      return false;
    }
    i = semi;
  }
  return true;
}

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string trim(const std::string& t) {
  size_t a = t.find_first_not_of(" \t\r\n");
  if (a == std::string::npos) return "";
  size_t b = t.find_last_not_of(" \t\r\n");
  std::string r = t.substr(a, b - a + 1);
  // Collapse inner runs of white space from wrapped descriptions.
  std::string out;
  bool space = false;
  for (char c : r) {
    if (isspace(static_cast<unsigned char>(c))) {
      space = true;
      continue;
    }
    if (space) out += ' ';
    space = false;
    out += c;
  }
  return out;
}

int hexval(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool parse_hex_bytes(const std::string& text, std::vector<uint8_t>* out) {
  out->clear();
  std::string digits;
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (isspace(static_cast<unsigned char>(c)) || c == ',' || c == ':' || c == '-') {
      if (digits.size() % 2) return false;
      continue;
    }
    if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
      i++;
      continue;
    }
    if (hexval(c) < 0) return false;
    digits += c;
  }
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2)
    out->push_back(static_cast<uint8_t>(hexval(digits[i]) << 4 | hexval(digits[i + 1])));
  return true;
}

bool looks_hex(const std::string& name) {
  std::vector<uint8_t> ignored;
  return !name.empty() && parse_hex_bytes(name, &ignored);
}

// Parses name="value" pairs up to '>' or '/>'. Returns false on malformed input.
bool read_attributes(Reader& r, std::vector<std::pair<std::string, std::string>>* attrs,
                     bool* self_closing, size_t* error_at, const char** why) {
  attrs->clear();
  for (;;) {
    r.skip_space();
    if (r.pos >= r.s.size()) { *error_at = r.pos; *why = "unterminated tag"; return false; }
    if (r.starts("/>")) { r.pos += 2; *self_closing = true; return true; }
    if (r.s[r.pos] == '>') { r.pos++; *self_closing = false; return true; }
    size_t start = r.pos;
    while (r.pos < r.s.size() && (isalnum(static_cast<unsigned char>(r.s[r.pos])) ||
                                  r.s[r.pos] == '_' || r.s[r.pos] == '-' || r.s[r.pos] == ':'))
      r.pos++;
    if (r.pos == start) { *error_at = r.pos; *why = "malformed attribute"; return false; }
    std::string name = r.s.substr(start, r.pos - start);
    r.skip_space();
    if (r.pos >= r.s.size() || r.s[r.pos] != '=') { *error_at = r.pos; *why = "attribute without value"; return false; }
    r.pos++;
    r.skip_space();
    if (r.pos >= r.s.size() || (r.s[r.pos] != '"' && r.s[r.pos] != '\'')) {
      *error_at = r.pos; *why = "attribute value must be quoted"; return false;
    }
    char quote = r.s[r.pos++];
    size_t end = r.s.find(quote, r.pos);
    if (end == std::string::npos) { *error_at = start; *why = "unterminated attribute value"; return false; }
    std::string value;
    if (!decode_entities(r.s.substr(r.pos, end - r.pos), &value)) {
      *error_at = start; *why = "bad character reference"; return false;
    }
    for (auto& a : *attrs)
      if (a.first == name) { *error_at = start; *why = "duplicate attribute"; return false; }
    attrs->push_back({name, value});
    r.pos = end + 1;
  }
}

// Skips declarations, comments and white space between elements.
int skip_misc(Reader& r) {
  for (;;) {
    r.skip_space();
    if (r.starts("<?")) {
      size_t e = r.s.find("?>", r.pos);
      if (e == std::string::npos) return r.fail(r.pos, "unterminated declaration");
      r.pos = e + 2;
    } else if (r.starts("<!--")) {
      size_t e = r.s.find("-->", r.pos + 4);
      if (e == std::string::npos) return r.fail(r.pos, "unterminated comment");
      r.pos = e + 3;
    } else if (r.starts("<!")) {
      size_t e = r.s.find('>', r.pos);
      if (e == std::string::npos) return r.fail(r.pos, "unterminated declaration");
      r.pos = e + 1;
    } else {
      return 0;
    }
  }
}

bool name_equal(const std::string& a, const char* b) {
  return !a.empty() && strcasecmp(a.c_str(), b) == 0;
}

}  // namespace

int vxcli_uds_services_parse(const std::string& xml, std::vector<vxcli_uds_service>* out,
                             char* error_text, size_t error_size) {
  out->clear();
  Reader r{xml, 0, error_text, error_size};
  if (xml.compare(0, 3, "\xEF\xBB\xBF") == 0) r.pos = 3;  // byte-order mark
  if (skip_misc(r)) return -1;
  if (!r.starts("<services")) return r.fail(r.pos, "expected root element <services>");
  r.pos += 9;
  std::vector<std::pair<std::string, std::string>> attrs;
  bool self_closing = false;
  size_t at = 0;
  const char* why = nullptr;
  if (r.pos < xml.size() && !isspace(static_cast<unsigned char>(xml[r.pos])) && xml[r.pos] != '>' &&
      xml[r.pos] != '/')
    return r.fail(r.pos, "expected root element <services>");
  if (!read_attributes(r, &attrs, &self_closing, &at, &why)) return r.fail(at, why);
  if (!self_closing) {
    for (;;) {
      if (skip_misc(r)) return -1;
      if (r.pos >= xml.size()) return r.fail(r.pos, "missing </services>");
      if (r.starts("</services")) {
        size_t e = xml.find('>', r.pos);
        if (e == std::string::npos) return r.fail(r.pos, "unterminated </services>");
        r.pos = e + 1;
        break;
      }
      if (xml[r.pos] != '<') return r.fail(r.pos, "text outside <service> elements");
      size_t tag_at = r.pos;
      if (!r.starts("<service") ||
          !(isspace(static_cast<unsigned char>(xml[r.pos + 8])) || xml[r.pos + 8] == '/' ||
            xml[r.pos + 8] == '>')) {
        size_t e = r.pos + 1;
        while (e < xml.size() && (isalnum(static_cast<unsigned char>(xml[e])) || xml[e] == '_')) e++;
        std::string what = "unknown element <" + xml.substr(r.pos + 1, e - r.pos - 1) + ">";
        return r.fail(r.pos, what.c_str());
      }
      r.pos += 8;
      if (!read_attributes(r, &attrs, &self_closing, &at, &why)) return r.fail(at, why);
      vxcli_uds_service svc;
      bool have_id = false;
      for (auto& [k, v] : attrs) {
        if (k == "id") {
          // Service identifiers are always written in hex, with or without 0x.
          std::string digits = trim(v);
          if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
            digits = digits.substr(2);
          char* end = nullptr;
          unsigned long id = strtoul(digits.c_str(), &end, 16);
          if (digits.empty() || !isxdigit(static_cast<unsigned char>(digits[0])) || *end || id > 0xFF)
            return r.fail(tag_at, "service id must be one hex byte (e.g. id=\"0x22\")");
          svc.id = static_cast<uint8_t>(id);
          have_id = true;
        } else if (k == "name") {
          svc.name = trim(v);
        } else if (k == "alias") {
          svc.alias = trim(v);
        } else if (k == "data") {
          if (!parse_hex_bytes(v, &svc.data) || svc.data.size() > 64)
            return r.fail(tag_at, "service data must be up to 64 hex bytes");
        } else if (k == "params") {
          svc.params = trim(v);
        } else if (k == "description") {
          svc.description = trim(v);
        }  // other attributes are kept for other tools and ignored here
      }
      if (!self_closing) {
        size_t e = xml.find("</service>", r.pos);
        if (e == std::string::npos) return r.fail(tag_at, "missing </service>");
        std::string body = xml.substr(r.pos, e - r.pos);
        if (body.find('<') != std::string::npos)
          return r.fail(tag_at, "<service> may only contain text");
        std::string text;
        if (!decode_entities(body, &text)) return r.fail(tag_at, "bad character reference");
        if (svc.description.empty()) svc.description = trim(text);
        r.pos = e + 10;
      }
      if (!have_id) return r.fail(tag_at, "<service> without id attribute");
      if (svc.name.empty()) return r.fail(tag_at, "<service> without name attribute");
      for (const std::string* n : {&svc.name, &svc.alias}) {
        if (n->empty()) continue;
        if (looks_hex(*n) || n->find_first_of(" \t") != std::string::npos) {
          std::string what = "service name '" + *n + "' must be one word that is not hex bytes";
          return r.fail(tag_at, what.c_str());
        }
        if (vxcli_uds_services_find(*out, n->c_str())) {
          std::string what = "duplicate service name '" + *n + "'";
          return r.fail(tag_at, what.c_str());
        }
      }
      if (!svc.alias.empty() && name_equal(svc.alias, svc.name.c_str()))
        svc.alias.clear();
      if (out->size() >= VXCLI_UDS_MAX_SERVICES) return r.fail(tag_at, "too many services");
      out->push_back(std::move(svc));
    }
  }
  if (skip_misc(r)) return -1;
  if (r.pos < xml.size()) return r.fail(r.pos, "content after </services>");
  return 0;
}

std::string vxcli_uds_services_to_xml(const std::vector<vxcli_uds_service>& services) {
  std::string x = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<services>\n";
  char id[8];
  for (const auto& s : services) {
    snprintf(id, sizeof id, "0x%02X", s.id);
    x += "  <service id=\"";
    x += id;
    x += "\" name=\"" + escape(s.name) + "\"";
    if (!s.alias.empty()) x += " alias=\"" + escape(s.alias) + "\"";
    if (!s.data.empty()) {
      x += " data=\"";
      for (size_t i = 0; i < s.data.size(); i++) {
        char b[4];
        snprintf(b, sizeof b, "%s%02X", i ? " " : "", s.data[i]);
        x += b;
      }
      x += "\"";
    }
    if (!s.params.empty()) x += " params=\"" + escape(s.params) + "\"";
    if (!s.description.empty()) x += " description=\"" + escape(s.description) + "\"";
    x += "/>\n";
  }
  x += "</services>\n";
  return x;
}

const vxcli_uds_service* vxcli_uds_services_find(const std::vector<vxcli_uds_service>& services,
                                                 const char* name) {
  if (!name || !*name) return nullptr;
  for (const auto& s : services)
    if (name_equal(s.name, name) || name_equal(s.alias, name)) return &s;
  return nullptr;
}

int vxcli_uds_services_user_path(char* out, size_t size) {
  char dir[4096];
  if (vxcli_get_config_dir(dir, sizeof dir) != 0) return -1;
  int n = snprintf(out, size, "%s/uds_services.xml", dir);
  return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

int vxcli_uds_services_read_file(const char* path, std::vector<vxcli_uds_service>* out,
                                 char* error_text, size_t error_size) {
  FILE* f = fopen(path, "rb");
  if (!f) {
    snprintf(error_text, error_size, "cannot open '%s': %s", path, strerror(errno));
    return -1;
  }
  std::string xml;
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
    xml.append(buf, n);
    if (xml.size() > (4u << 20)) {
      fclose(f);
      snprintf(error_text, error_size, "'%s' is too large for a service definition file", path);
      return -1;
    }
  }
  fclose(f);
  char message[256];
  if (vxcli_uds_services_parse(xml, out, message, sizeof message) != 0) {
    snprintf(error_text, error_size, "%s: %s", path, message);
    return -1;
  }
  return 0;
}

int vxcli_uds_services_write_file(const char* path, const std::vector<vxcli_uds_service>& services,
                                  char* error_text, size_t error_size) {
  std::string tmp = std::string(path) + ".tmp";
  FILE* f = fopen(tmp.c_str(), "wb");
  if (!f) {
    snprintf(error_text, error_size, "cannot write '%s': %s", path, strerror(errno));
    return -1;
  }
  std::string xml = vxcli_uds_services_to_xml(services);
  bool ok = fwrite(xml.data(), 1, xml.size(), f) == xml.size();
  ok = (fclose(f) == 0) && ok;
  if (!ok || rename(tmp.c_str(), path) != 0) {
    snprintf(error_text, error_size, "cannot write '%s': %s", path, strerror(errno));
    remove(tmp.c_str());
    return -1;
  }
  return 0;
}

int vxcli_uds_services_current(std::vector<vxcli_uds_service>* out, std::string* source,
                               char* error_text, size_t error_size) {
  char path[4096];
  struct stat st;
  if (vxcli_uds_services_user_path(path, sizeof path) == 0 && stat(path, &st) == 0) {
    if (source) *source = path;
    return vxcli_uds_services_read_file(path, out, error_text, error_size);
  }
  if (vxcli_resolve_resource("res/uds.xml", path, sizeof path) != 0) {
    snprintf(error_text, error_size,
             "no UDS service definitions: res/uds.xml not found beside the executable "
             "(load one with 'uds load <file>')");
    return -1;
  }
  if (source) *source = path;
  return vxcli_uds_services_read_file(path, out, error_text, error_size);
}
