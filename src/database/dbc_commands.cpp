// dbc decode|encode, dbc message list|show, dbc signal list|show.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/output.h"
#include "database/commands.h"
#include "database/dbc.h"
#include "database/dbc_text.h"
#include "json/json.h"

namespace {

constexpr size_t kErrorSize = 256;

int fail(const char* message) {
  vxcli_print_error("%s", message);
  return 1;
}

const char* database_selector(int count, char** words) {
  const char* selector = vxcli_get_option(count, words, "database");
  if (!selector) selector = vxcli_get_option(count, words, "dbc");
  return selector ? selector : "";
}

const DbcLoadedFile* open_database(int count, char** words) {
  char error[kErrorSize];
  const DbcLoadedFile* file = vxcli_dbc_resolve(database_selector(count, words), error,
                                                sizeof error);
  if (!file) fail(error);
  return file;
}

// The message a command names, in the database it selects; null once the error is printed.
const Message* open_message(int count, char** words, const char* selector) {
  const DbcLoadedFile* file = open_database(count, words);
  if (!file) return nullptr;
  const Message* message = vxcli_dbc_find_message(*file, selector);
  if (!message) vxcli_print_error("Message not found: %s", selector);
  return message;
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
int hex_value(char c) {
  if (c <= '9') return c - '0';
  return (c | 0x20) - 'a' + 10;
}
bool is_separator(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f' || c == ':' ||
         c == ',' || c == '-';
}

// "11 22", "11:22", "1122", "1-2-3": up to 64 bytes of one or two hex digits
// each. -1 when the text holds no byte at all; a bad character later ends the payload.
int parse_payload(const char* text, uint8_t out[64]) {
  const char* p = text;
  while (*p && is_separator(*p)) p++;
  if (!is_hex(*p)) return -1;
  int count = 0;
  while (count < 64) {
    while (*p && is_separator(*p)) p++;
    if (!is_hex(*p)) break;
    int value = hex_value(*p++);
    if (is_hex(*p)) value = value * 16 + hex_value(*p++);
    out[count++] = uint8_t(value);
  }
  return count;
}

std::string flag_words(const Message& m, const char* ext, const char* std_, const char* fd,
                       const char* brs) {
  std::string out = m.extended ? ext : std_;
  if (vxcli_dbc_is_fd(m)) out += fd;
  if (vxcli_dbc_is_brs(m)) out += brs;
  return out;
}

const char* yes_no(bool value) { return value ? "yes" : "no"; }
const char* true_false(bool value) { return value ? "true" : "false"; }

const char* multiplex_word(const Signal& s) {
  if (s.multiplexor == DBC_MULTIPLEXOR) return "multiplexor";
  if (s.multiplexor == DBC_MULTIPLEXED) return "multiplexed";
  return "none";
}

// printf's %.17g, or null where JSON has no number.
void json_number(vxcli_json_writer* w, double value) {
  if (std::isfinite(value)) vxcli_json_writer_printf(w, "%.17g", value);
  else vxcli_json_writer_raw(w, "null");
}

void write_signal_json(vxcli_json_writer* w, const Signal& s) {
  vxcli_json_writer_raw(w, "{\"name\":");
  vxcli_database_json_string(w, s.name);
  vxcli_json_writer_printf(w, ",\"start_bit\":%u,\"length\":%u,\"byte_order\":\"%s\",\"signed\":%s",
                           unsigned(s.startBit), unsigned(s.length),
                           s.order == DBC_INTEL ? "intel" : "motorola", true_false(s.sign != 0));
  vxcli_json_writer_raw(w, ",\"factor\":");
  json_number(w, s.factor);
  vxcli_json_writer_raw(w, ",\"offset\":");
  json_number(w, s.offset);
  vxcli_json_writer_raw(w, ",\"minimum\":");
  json_number(w, s.minimum);
  vxcli_json_writer_raw(w, ",\"maximum\":");
  json_number(w, s.maximum);
  vxcli_json_writer_raw(w, ",\"unit\":");
  vxcli_database_json_string(w, s.unit);
  vxcli_json_writer_printf(w, ",\"multiplex\":\"%s\",\"multiplex_value\":", multiplex_word(s));
  if (s.multiplexor == DBC_MULTIPLEXED) vxcli_json_writer_printf(w, "%d}", s.multiplexNum);
  else vxcli_json_writer_raw(w, "null}");
}

void print_signal_text(const Signal& s) {
  std::string role = multiplex_word(s);
  if (s.multiplexor == DBC_MULTIPLEXED) role += "=" + std::to_string(s.multiplexNum);
  printf("%-30s %u|%u %s %s factor=%.10g offset=%.10g [%g|%g] %s %s\n", s.name.c_str(),
         unsigned(s.startBit), unsigned(s.length), s.order == DBC_INTEL ? "intel" : "motorola",
         s.sign ? "signed" : "unsigned", s.factor, s.offset, s.minimum, s.maximum,
         vxcli_database_utf8(s.unit).c_str(), role.c_str());
}

void print_signal_csv(const Signal& s) {
  std::string value = s.multiplexor == DBC_MULTIPLEXED ? std::to_string(s.multiplexNum) : "";
  printf("%s,%u,%u,%s,%s,%.17g,%.17g,%.17g,%.17g,%s,%s,%s\n",
         vxcli_database_csv_field(s.name).c_str(), unsigned(s.startBit), unsigned(s.length),
         s.order == DBC_INTEL ? "intel" : "motorola", true_false(s.sign != 0), s.factor, s.offset,
         s.minimum, s.maximum, vxcli_database_csv_field(s.unit).c_str(), multiplex_word(s),
         value.c_str());
}

const char kSignalCsvHeader[] =
    "name,start_bit,length,byte_order,signed,factor,offset,minimum,maximum,unit,multiplex,"
    "multiplex_value\n";

// Shared by signal list and signal show; signal_name null lists them all.
int dbc_signal_view(int count, char** words, const char* signal_name, bool show) {
  const char* selector = vxcli_get_option(count, words, "message");
  if (!selector || !*selector) return fail("--message is required");
  if (show && (!signal_name || !*signal_name)) return fail("signal name is required");
  const Message* message = open_message(count, words, selector);
  if (!message) return 1;
  std::vector<const Signal*> shown;
  for (const Signal& s : message->signals)
    if (!show || s.name == signal_name) {
      shown.push_back(&s);
      if (show) break;
    }
  if (show && shown.empty()) {
    vxcli_print_error("Signal not found: %s", signal_name);
    return 1;
  }
  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_raw(&w, "{\"status\":\"ok\",\"message\":");
    vxcli_database_json_string(&w, message->name);
    if (show) {
      vxcli_json_writer_raw(&w, ",\"signal\":");
      write_signal_json(&w, *shown[0]);
      vxcli_json_writer_raw(&w, "}\n");
    } else {
      vxcli_json_writer_raw(&w, ",\"signals\":[");
      for (size_t i = 0; i < shown.size(); i++) {
        if (i) vxcli_json_writer_char(&w, ',');
        write_signal_json(&w, *shown[i]);
      }
      vxcli_json_writer_printf(&w, "],\"count\":%zu}\n", shown.size());
    }
    return vxcli_json_document_print(&w);
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    fputs(kSignalCsvHeader, stdout);
    for (const Signal* s : shown) print_signal_csv(*s);
    return 0;
  }
  for (const Signal* s : shown) print_signal_text(*s);
  return 0;
}

}  // namespace

int vxcli_dbc_decode_command(int count, char** words) {
  const char* selector = vxcli_get_option(count, words, "message");
  if (!selector || !*selector) return fail("--message is required");
  const char* data_text = vxcli_get_option(count, words, "data");
  if (!data_text) return fail("--data is required");
  const Message* message = open_message(count, words, selector);
  if (!message) return 1;
  uint8_t data[64] = {};
  int parsed = parse_payload(data_text, data);
  if (parsed < 0) return fail("Invalid data");

  if (g_config.format == VXCLI_FORMAT_JSON) {
    size_t size = 256 + message->name.size() * 6;
    for (const Signal& s : message->signals) size += 160 + (s.name.size() + s.unit.size()) * 6;
    std::vector<char> text(size);
    if (vxcli_dbc_message_decode_json(*message, data, size_t(parsed), text.data(), size) != 0)
      return fail("decoded message does not fit the output buffer");
    printf("{\"status\":\"ok\",%s\n", text.data() + 1);
    return 0;
  }
  std::vector<DbcSignalValue> values(message->signals.size());
  size_t n = vxcli_dbc_decode_message(*message, data, size_t(parsed), values.data(), values.size());
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("signal,raw,physical,unit\n");
    for (size_t i = 0; i < n; i++)
      printf("%s,%llu,%.10g,%s\n", vxcli_database_csv_field(values[i].signal->name).c_str(),
             static_cast<unsigned long long>(values[i].raw), values[i].physical,
             vxcli_database_csv_field(values[i].signal->unit).c_str());
    return 0;
  }
  printf("Message: %s (ID=0x%X, DLC=%d, %s)\n", message->name.c_str(),
         message->id & 0x7FFFFFFFu, int(vxcli_dbc_payload_length(*message, size_t(parsed))),
         flag_words(*message, "EXT", "STD", ",FD", ",BRS").c_str());
  printf("Raw:");
  for (int i = 0; i < parsed; i++) printf(" %02X", data[i]);
  printf("\n");
  for (size_t i = 0; i < n; i++)
    printf("  %-30s raw=%-8llu phys=%-12.6g %s\n", values[i].signal->name.c_str(),
           static_cast<unsigned long long>(values[i].raw), values[i].physical,
           vxcli_database_utf8(values[i].signal->unit).c_str());
  return 0;
}

int vxcli_dbc_encode_command(int count, char** words) {
  const char* selector = vxcli_get_option(count, words, "message");
  if (!selector || !*selector) return fail("--message is required");
  std::vector<std::string> names;
  std::vector<double> values;
  for (int i = 0; i < count; i++) {
    const char* word = words[i];
    const char* assignment;
    if (strncmp(word, "--signal=", 9) == 0) assignment = word + 9;
    else if (strncmp(word, "--", 2) == 0) continue;
    else assignment = word;
    const char* equals = strchr(assignment, '=');
    if (!equals) continue;
    names.emplace_back(assignment, size_t(equals - assignment));
    values.push_back(strtod(equals + 1, nullptr));
  }
  const Message* message = open_message(count, words, selector);
  if (!message) return 1;
  std::vector<const char*> name_pointers;
  for (const std::string& name : names) {
    name_pointers.push_back(name.c_str());
    bool known = false;
    for (const Signal& s : message->signals) known = known || s.name == name;
    if (!known)
      vxcli_print_warning("signal '%s' is not in message %s; ignored", name.c_str(),
                          message->name.c_str());
  }
  uint8_t data[64];
  uint32_t length = 0;
  vxcli_dbc_encode_message(*message, int(names.size()), name_pointers.data(), values.data(), data,
                           &length);
  if (g_config.format == VXCLI_FORMAT_JSON) {
    printf("{\"status\":\"ok\",%s\n", vxcli_dbc_encode_json(*message, data, length).c_str() + 1);
    return 0;
  }
  printf("%s (0x%X) DLC=%u %s: ", message->name.c_str(), message->id & 0x7FFFFFFFu, length,
         flag_words(*message, "EXT", "STD", ",FD", ",BRS").c_str());
  for (uint32_t i = 0; i < length; i++) printf("%02X ", data[i]);
  printf("\n");
  return 0;
}

int vxcli_dbc_message_list_command(int count, char** words) {
  const char* filter = vxcli_get_option(count, words, "filter");
  if (!filter) filter = vxcli_database_positional(count, words, 0);
  std::string needle = filter ? filter : "";
  for (char& c : needle) c = char(tolower(static_cast<unsigned char>(c)));
  const DbcLoadedFile* file = open_database(count, words);
  if (!file) return 1;
  std::vector<const Message*> shown;
  for (const Message& m : file->dbc) {
    std::string name = m.name;
    for (char& c : name) c = char(tolower(static_cast<unsigned char>(c)));
    if (name.find(needle) != std::string::npos) shown.push_back(&m);
  }
  if (g_config.format == VXCLI_FORMAT_JSON) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_raw(&w, "{\"status\":\"ok\",\"messages\":[");
    for (size_t i = 0; i < shown.size(); i++) {
      const Message& m = *shown[i];
      vxcli_json_writer_printf(&w, "%s{\"id\":\"0x%X\",\"name\":", i ? "," : "",
                               m.id & 0x7FFFFFFFu);
      vxcli_database_json_string(&w, m.name);
      vxcli_json_writer_printf(&w, ",\"dlc\":%llu,\"signals\":%zu,\"extended\":%s,\"fd\":%s,"
                               "\"brs\":%s}",
                               static_cast<unsigned long long>(m.size), m.signals.size(),
                               true_false(m.extended), true_false(vxcli_dbc_is_fd(m)),
                               true_false(vxcli_dbc_is_brs(m)));
    }
    vxcli_json_writer_printf(&w, "],\"count\":%zu}\n", shown.size());
    return vxcli_json_document_print(&w);
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("id,name,dlc,signals,extended,fd,brs\n");
    for (const Message* m : shown)
      printf("0x%X,%s,%llu,%zu,%s,%s,%s\n", m->id & 0x7FFFFFFFu,
             vxcli_database_csv_field(m->name).c_str(), static_cast<unsigned long long>(m->size),
             m->signals.size(), yes_no(m->extended), yes_no(vxcli_dbc_is_fd(*m)),
             yes_no(vxcli_dbc_is_brs(*m)));
    return 0;
  }
  if (shown.empty()) {
    printf("No messages found\n");
    return 0;
  }
  for (const Message* m : shown)
    printf("0x%04X %-35s DLC=%llu %2zu signals %s\n", m->id & 0x7FFFFFFFu, m->name.c_str(),
           static_cast<unsigned long long>(m->size), m->signals.size(),
           flag_words(*m, "[EXT]", "[STD]", "[FD]", "[BRS]").c_str());
  return 0;
}

int vxcli_dbc_message_show_command(int count, char** words) {
  const char* selector = vxcli_database_positional(count, words, 0);
  if (!selector) selector = vxcli_get_option(count, words, "message");
  if (!selector || !*selector) return fail("message name or ID is required");
  const Message* m = open_message(count, words, selector);
  if (!m) return 1;
  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (!vxcli_json_document_start(&w)) return 1;
    vxcli_json_writer_printf(&w, "{\"status\":\"ok\",\"message\":{\"id\":\"0x%X\",\"name\":",
                             m->id & 0x7FFFFFFFu);
    vxcli_database_json_string(&w, m->name);
    vxcli_json_writer_printf(&w, ",\"dlc\":%llu,\"sender\":", static_cast<unsigned long long>(m->size));
    vxcli_database_json_string(&w, m->from);
    vxcli_json_writer_printf(&w,
                             ",\"cycle_ms\":%u,\"signals\":%zu,\"extended\":%s,\"fd\":%s,"
                             "\"brs\":%s}}\n",
                             m->cycleTime, m->signals.size(), true_false(m->extended),
                             true_false(vxcli_dbc_is_fd(*m)), true_false(vxcli_dbc_is_brs(*m)));
    return vxcli_json_document_print(&w);
  }
  printf("%s ID=0x%X DLC=%llu sender=%s cycle=%ums signals=%zu %s\n", m->name.c_str(),
         m->id & 0x7FFFFFFFu, static_cast<unsigned long long>(m->size), m->from.c_str(),
         m->cycleTime, m->signals.size(), flag_words(*m, "[EXT]", "[STD]", "[FD]", "[BRS]").c_str());
  return 0;
}

int vxcli_dbc_signal_list_command(int count, char** words) {
  return dbc_signal_view(count, words, nullptr, false);
}

int vxcli_dbc_signal_show_command(int count, char** words) {
  const char* name = vxcli_database_positional(count, words, 0);
  if (!name) name = vxcli_get_option(count, words, "signal");
  return dbc_signal_view(count, words, name, true);
}
