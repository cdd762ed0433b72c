// Reader and validator for LIN description files.
#include "database/ldf_model.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdarg>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "cli/output.h"
#include "database/inspect.h"

namespace {

constexpr long kMaxFileSize = 0x400000;

struct Token {
  std::string text;
  int line = 0;
  bool quoted = false;
};

bool is_punct_char(char c) { return c != 0 && strchr("{}:;,=", c) != nullptr; }

// '%' appears in ISO master declarations ("40 %"); the rest covers names and numbers.
bool is_word_char(unsigned char c) {
  return isalnum(c) || c == '_' || c == '.' || c == '-' || c == '+' || c == '%';
}

std::string at_line(int line) { return " at line " + std::to_string(line); }

int tokenize(const std::string& src, std::vector<Token>& out, std::string& error) {
  size_t i = 0;
  const size_t n = src.size();
  int line = 1;
  // Files saved by some editors start with a UTF-8 byte order mark.
  if (n >= 3 && (unsigned char)src[0] == 0xEF && (unsigned char)src[1] == 0xBB &&
      (unsigned char)src[2] == 0xBF)
    i = 3;
  while (i < n) {
    char c = src[i];
    if (c == '\n') {
      line++;
      i++;
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
      i++;
      continue;
    }
    if (c == '/' && i + 1 < n && src[i + 1] == '/') {
      while (i < n && src[i] != '\n') i++;
      continue;
    }
    if (c == '/' && i + 1 < n && src[i + 1] == '*') {
      size_t end = src.find("*/", i + 2);
      if (end == std::string::npos) {
        error = "unterminated block comment";
        return -1;
      }
      for (size_t k = i; k < end; k++)
        if (src[k] == '\n') line++;
      i = end + 2;
      continue;
    }
    if (c == '"') {
      size_t start = i + 1;
      size_t end = start;
      // A string never spans lines: a missing quote is reported where it starts.
      while (end < n && src[end] != '"' && src[end] != '\n') end++;
      if (end >= n || src[end] != '"') {
        error = "unterminated string" + at_line(line);
        return -1;
      }
      out.push_back({src.substr(start, end - start), line, true});
      i = end + 1;
      continue;
    }
    if (is_punct_char(c)) {
      out.push_back({std::string(1, c), line, false});
      i++;
      continue;
    }
    if (is_word_char((unsigned char)c)) {
      size_t start = i;
      while (i < n && is_word_char((unsigned char)src[i])) i++;
      out.push_back({src.substr(start, i - start), line, false});
      continue;
    }
    error = "unexpected character" + at_line(line);
    return -1;
  }
  return 0;
}

// Decimal or 0x-hex, optionally signed; the whole text must be the number.
bool parse_long_text(const std::string& text, int64_t& out) {
  const char* p = text.c_str();
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    p++;
  }
  int base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  if (!isxdigit((unsigned char)*p)) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long value = strtoull(p, &end, base);
  if (errno != 0 || *end != 0 || value > (unsigned long long)INT64_MAX) return false;
  out = negative ? -(int64_t)value : (int64_t)value;
  return true;
}

bool parse_double_text(const std::string& text, double& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  double value = strtod(text.c_str(), &end);
  if (errno == ERANGE || *end != 0 || !std::isfinite(value)) return false;
  out = value;
  return true;
}

// Initial values are C-style integers: 0x.. hex, 0.. octal, otherwise decimal.
bool parse_c_unsigned(const std::string& text, uint64_t& out) {
  if (text.empty() || !isdigit((unsigned char)text[0])) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long value = strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != 0) return false;
  out = value;
  return true;
}

// Bit pattern of an initial value text as stored in LdfSignal::initial.
uint64_t initial_value_bits(const std::string& text) {
  uint64_t value = 0;
  if (!text.empty() && text[0] == '{') {
    size_t pos = 1;
    unsigned index = 0;
    while (pos < text.size() && index < 8) {
      size_t end = text.find_first_of(",}", pos);
      if (end == std::string::npos) break;
      std::string element = text.substr(pos, end - pos);
      size_t first = element.find_first_not_of(' ');
      element = first == std::string::npos ? "" : element.substr(first);
      uint64_t byte = 0;
      if (parse_c_unsigned(element, byte)) value |= (byte & 0xFF) << (8 * index);
      index++;
      if (text[end] == '}') break;
      pos = end + 1;
    }
    return value;
  }
  parse_c_unsigned(text, value);
  return value;
}

// LIN 1.x derives the data length from the identifier when a file omits it.
int64_t lin13_size_from_id(int64_t id) {
  if (id < 0 || id > 0x3F) return 0;
  if (id <= 0x1F) return 2;
  if (id <= 0x2F) return 4;
  return 8;
}

bool is_lin1x(const std::string& version) { return version.rfind("1.", 0) == 0; }

class LdfReader {
 public:
  LdfReader(const std::vector<Token>& tokens, LdfModel& model) : t_(tokens), m_(model) {}

  bool parse(std::string& error) {
    bool ok = parse_file();
    if (!ok) error = error_;
    return ok;
  }

 private:
  const std::vector<Token>& t_;
  LdfModel& m_;
  size_t pos_ = 0;
  std::string error_;

  bool at_end() const { return pos_ >= t_.size(); }
  const Token* peek(size_t ahead = 0) const {
    return pos_ + ahead < t_.size() ? &t_[pos_ + ahead] : nullptr;
  }
  bool peek_is(const char* text, size_t ahead = 0) const {
    const Token* tok = peek(ahead);
    return tok && !tok->quoted && tok->text == text;
  }
  std::string where() const {
    if (t_.empty()) return "";
    return at_line(at_end() ? t_.back().line : t_[pos_].line);
  }
  bool fail(const std::string& message) {
    error_ = message + where();
    return false;
  }
  bool accept(const char* text) {
    if (!peek_is(text)) return false;
    pos_++;
    return true;
  }
  bool expect(const char* text) {
    if (accept(text)) return true;
    return fail(std::string("expected '") + text + "'");
  }
  // A word or a quoted string.
  bool take_word(std::string& out) {
    const Token* tok = peek();
    if (!tok || (!tok->quoted && is_punct_char(tok->text[0]))) return fail("expected a value");
    out = tok->text;
    pos_++;
    return true;
  }
  bool take_long(int64_t& out) {
    const Token* tok = peek();
    if (!tok || tok->quoted || !parse_long_text(tok->text, out)) return fail("expected an integer");
    pos_++;
    return true;
  }
  bool take_number(double& out) {
    const Token* tok = peek();
    if (!tok || tok->quoted || !parse_double_text(tok->text, out))
      return fail("expected a number");
    pos_++;
    return true;
  }
  bool unit(const char* name) {
    if (accept(name)) return true;
    return fail(std::string("expected unit '") + name + "'");
  }
  bool unterminated(int line) {
    error_ = "unterminated section" + at_line(line);
    return false;
  }

  bool parse_file() {
    if (!accept("LIN_description_file") || !accept(";"))
      return fail("missing LIN_description_file header");
    while (!at_end()) {
      if (accept(";")) continue;  // stray separator after a section
      const Token* tok = peek();
      std::string name;
      if (!take_word(name)) return false;
      bool ok = true;
      if (name == "LIN_protocol_version") ok = parse_text_value(m_.protocol_version);
      else if (name == "LIN_language_version") ok = parse_text_value(m_.language_version);
      else if (name == "LIN_speed") ok = parse_speed();
      else if (name == "Nodes") ok = parse_nodes();
      else if (name == "Signals") ok = parse_signals(false);
      else if (name == "Diagnostic_signals") ok = parse_signals(true);
      else if (name == "Frames") ok = parse_frames();
      else if (name == "Diagnostic_frames") ok = parse_diagnostic_frames();
      else if (name == "Sporadic_frames") ok = parse_sporadic_frames();
      else if (name == "Event_triggered_frames") ok = parse_event_triggered_frames();
      else if (name == "Schedule_tables") ok = parse_schedule_tables();
      else if (accept(";")) ok = true;  // flag statements such as LIN_sig_byte_order_big_endian;
      else if (accept("=")) ok = skip_statement(tok->line);
      else if (peek_is("{")) ok = skip_block(tok->line);
      else return fail("expected '=' or '{' after " + name);
      if (!ok) return false;
    }
    return true;
  }

  bool parse_text_value(std::string& out) {
    return expect("=") && take_word(out) && expect(";");
  }

  bool parse_speed() {
    if (!expect("=")) return false;
    const Token* tok = peek();
    if (!tok || tok->quoted) return fail("expected a number");
    std::string number = tok->text;
    std::string unit_word;
    // "19.2kbps" written without a blank.
    for (const char* suffix : {"kbps", "bps"}) {
      size_t len = strlen(suffix);
      if (number.size() > len && number.compare(number.size() - len, len, suffix) == 0) {
        number.resize(number.size() - len);
        unit_word = suffix;
        break;
      }
    }
    double value = 0;
    if (!parse_double_text(number, value)) return fail("expected a number");
    pos_++;
    if (unit_word.empty()) {
      const Token* u = peek();
      if (!u || u->quoted || (u->text != "kbps" && u->text != "bps"))
        return fail("LIN_speed must use bps or kbps");
      unit_word = u->text;
      pos_++;
    }
    double bps = unit_word == "kbps" ? value * 1000.0 : value;
    bps = std::round(bps);
    if (!(bps >= 1) || bps > INT32_MAX) return fail("invalid LIN_speed");
    m_.speed_bps = (int32_t)bps;
    return expect(";");
  }

  // Skips "= ... ;" of an unknown statement, braces balanced.
  bool skip_statement(int line) {
    int depth = 0;
    while (!at_end()) {
      const Token& tok = t_[pos_++];
      if (tok.quoted) continue;
      if (tok.text == "{") depth++;
      else if (tok.text == "}") {
        if (--depth < 0) return unterminated(line);
      } else if (tok.text == ";" && depth == 0) {
        return true;
      }
    }
    return unterminated(line);
  }

  bool skip_block(int line) {
    pos_++;  // '{'
    int depth = 1;
    while (!at_end()) {
      const Token& tok = t_[pos_++];
      if (tok.quoted) continue;
      if (tok.text == "{") depth++;
      else if (tok.text == "}" && --depth == 0) return true;
    }
    return unterminated(line);
  }

  // Runs body for each entry of "{ ... }" until the closing brace.
  template <typename Body>
  bool section(Body body) {
    int line = peek() ? peek()->line : 0;
    if (!expect("{")) return false;
    while (!accept("}")) {
      if (at_end()) return unterminated(line);
      if (!body()) return false;
    }
    return true;
  }

  bool parse_nodes() {
    return section([&] {
      std::string entry;
      if (!take_word(entry)) return false;
      if (entry == "Master") {
        LdfNode node;
        node.role = "master";
        if (!expect(":") || !take_word(node.name) || !expect(",") ||
            !take_number(node.time_base_ms) || !unit("ms"))
          return false;
        if (accept(",")) {
          if (!take_number(node.jitter_ms) || !unit("ms")) return false;
          // Optional header length and response tolerance ("48 bits, 40 %").
          while (accept(",")) {
            double ignored;
            std::string unit_word;
            if (!take_number(ignored) || !take_word(unit_word)) return false;
          }
        }
        m_.master = node.name;
        m_.nodes.push_back(node);
        return expect(";");
      }
      if (entry == "Slaves") {
        if (!expect(":")) return false;
        if (accept(";")) return true;
        do {
          LdfNode node;
          node.role = "slave";
          if (!take_word(node.name)) return false;
          m_.nodes.push_back(node);
        } while (accept(","));
        return expect(";");
      }
      pos_--;
      return fail("unknown Nodes entry " + entry);
    });
  }

  bool parse_initial(std::string& out) {
    if (accept("{")) {
      std::string text = "{";
      int count = 0;
      while (true) {
        const Token* tok = peek();
        uint64_t byte = 0;
        if (!tok || tok->quoted || !parse_c_unsigned(tok->text, byte) || byte > 0xFF || count >= 8)
          return fail("invalid signal initial value");
        if (count) text += ", ";
        text += tok->text;
        count++;
        pos_++;
        if (accept("}")) break;
        if (!accept(",")) return fail("invalid signal initial value");
      }
      out = text + "}";
      return true;
    }
    const Token* tok = peek();
    uint64_t value = 0;
    if (!tok || tok->quoted || !parse_c_unsigned(tok->text, value))
      return fail("invalid signal initial value");
    out = tok->text;
    pos_++;
    return true;
  }

  bool parse_signals(bool diagnostic) {
    return section([&] {
      LdfSignal signal;
      signal.diagnostic = diagnostic;
      int64_t size = 0;
      if (!take_word(signal.name) || !expect(":") || !take_long(size) || !expect(",") ||
          !parse_initial(signal.initial))
        return false;
      signal.size_bits = size < INT_MIN ? INT_MIN : size > INT_MAX ? INT_MAX : (int)size;
      // Diagnostic signals are usually declared without publisher and subscribers.
      if (accept(",")) {
        if (!take_word(signal.publisher)) return false;
        while (accept(",")) {
          std::string subscriber;
          if (!take_word(subscriber)) return false;
          signal.subscribers.push_back(subscriber);
        }
      }
      m_.signals.push_back(signal);
      return expect(";");
    });
  }

  bool parse_placements(LdfFrame& frame) {
    return section([&] {
      LdfPlacement placement;
      if (!take_word(placement.signal) || !expect(",") || !take_long(placement.offset))
        return false;
      frame.signals.push_back(placement);
      return expect(";");
    });
  }

  bool parse_frames() {
    return section([&] {
      LdfFrame frame;
      frame.type = "unconditional";
      if (!take_word(frame.name) || !expect(":") || !take_long(frame.id) || !expect(",") ||
          !take_word(frame.publisher))
        return false;
      if (accept(",")) {
        if (!take_long(frame.size)) return false;
      } else if (is_lin1x(m_.protocol_version) && peek_is("{")) {
        frame.size = lin13_size_from_id(frame.id);
      } else {
        return fail("expected ','");
      }
      if (!parse_placements(frame)) return false;
      m_.frames.push_back(frame);
      return true;
    });
  }

  bool parse_diagnostic_frames() {
    return section([&] {
      LdfFrame frame;
      frame.type = "diagnostic";
      frame.size = 8;
      if (!take_word(frame.name) || !expect(":") || !take_long(frame.id)) return false;
      if (!parse_placements(frame)) return false;
      m_.frames.push_back(frame);
      return true;
    });
  }

  bool parse_sporadic_frames() {
    return section([&] {
      LdfFrame frame;
      frame.type = "sporadic";
      if (!take_word(frame.name) || !expect(":")) return false;
      do {
        std::string ref;
        if (!take_word(ref)) return false;
        frame.referenced.push_back(ref);
      } while (accept(","));
      m_.frames.push_back(frame);
      return expect(";");
    });
  }

  bool parse_event_triggered_frames() {
    return section([&] {
      LdfFrame frame;
      frame.type = "event-triggered";
      if (!take_word(frame.name) || !expect(":")) return false;
      // LIN 2.0/2.1 files have no collision resolving table: the identifier comes first.
      const Token* tok = peek();
      int64_t id = 0;
      if (!(tok && !tok->quoted && parse_long_text(tok->text, id))) {
        if (!take_word(frame.collision_schedule) || !expect(",")) return false;
      }
      if (!take_long(frame.id)) return false;
      while (accept(",")) {
        std::string ref;
        if (!take_word(ref)) return false;
        frame.referenced.push_back(ref);
      }
      m_.frames.push_back(frame);
      return expect(";");
    });
  }

  // Argument list of a node-configuration command, kept as readable text.
  bool take_arguments(std::string& text) {
    int line = peek()->line;
    pos_++;  // '{'
    text += " {";
    int depth = 1;
    while (!at_end()) {
      const Token& tok = t_[pos_++];
      if (!tok.quoted && tok.text == "}" && --depth == 0) {
        text += "}";
        return true;
      }
      if (tok.quoted) text += "\"" + tok.text + "\"";
      else if (tok.text == ",") text += ", ";
      else {
        if (tok.text == "{") depth++;
        text += tok.text;
      }
    }
    return unterminated(line);
  }

  bool parse_schedule_tables() {
    return section([&] {
      LdfSchedule schedule;
      if (!take_word(schedule.name)) return false;
      bool ok = section([&] {
        LdfScheduleEntry entry;
        std::string word;
        if (!take_word(word)) return false;
        entry.command = word;
        entry.kind = is_configuration_command(word) ? "configuration" : "frame";
        if (peek_is("{") && !take_arguments(entry.command)) return false;
        if (!accept("delay")) return fail("schedule entry has no delay");
        if (!take_number(entry.delay_ms) || !unit("ms")) return false;
        schedule.entries.push_back(entry);
        return expect(";");
      });
      if (!ok) return false;
      m_.schedules.push_back(schedule);
      return true;
    });
  }
};

// Name lookups for the whole-file passes below (first declaration wins), so
// that large files stay linear.
template <typename T>
std::unordered_map<std::string, const T*> index_by_name(const std::vector<T>& items) {
  std::unordered_map<std::string, const T*> index;
  index.reserve(items.size());
  for (const T& item : items) index.emplace(item.name, &item);
  return index;
}

template <typename T>
const T* lookup(const std::unordered_map<std::string, const T*>& index, const std::string& name) {
  auto it = index.find(name);
  return it == index.end() ? nullptr : it->second;
}

// Fills in what follows from the rest of the file: diagnostic publishers and
// the sizes of sporadic and event-triggered frames.
void finalize(LdfModel& m) {
  auto frames = index_by_name(m.frames);
  for (LdfFrame& frame : m.frames) {
    if (frame.type == "diagnostic") {
      if (frame.id == 0x3C) frame.publisher = m.master;
    } else if (frame.type == "sporadic" || frame.type == "event-triggered") {
      if (frame.type == "sporadic") frame.publisher = m.master;
      int64_t size = 0;
      for (const std::string& ref : frame.referenced) {
        const LdfFrame* target = lookup(frames, ref);
        if (target && target->type == "unconditional" && target->size > size) size = target->size;
      }
      // Unresolved references are reported by validation under their own message.
      frame.size = size > 0 ? size : 8;
    }
  }
}

int validate(const LdfModel& m, std::string& error) {
  if (m.protocol_version.empty() || m.speed_bps < 1) {
    error = "missing LIN protocol version or speed";
    return -1;
  }
  if (m.master.empty()) {
    error = "LDF has no master node";
    return -1;
  }
  auto nodes = index_by_name(m.nodes);
  auto signals = index_by_name(m.signals);
  auto frames = index_by_name(m.frames);
  auto schedules = index_by_name(m.schedules);

  std::unordered_set<std::string> seen;
  for (const LdfNode& node : m.nodes) {
    if (!seen.insert(node.name).second) {
      error = "duplicate node: " + node.name;
      return -1;
    }
  }
  seen.clear();
  for (const LdfSignal& signal : m.signals) {
    if (!seen.insert(signal.name).second) {
      error = "duplicate signal: " + signal.name;
      return -1;
    }
    if (signal.size_bits < 1 || signal.size_bits > 64) {
      error = "invalid signal size: " + signal.name;
      return -1;
    }
    if (!signal.publisher.empty() && !lookup(nodes, signal.publisher)) {
      error = "unknown signal publisher: " + signal.name;
      return -1;
    }
    for (const std::string& subscriber : signal.subscribers) {
      if (!lookup(nodes, subscriber)) {
        error = "unknown signal subscriber: " + signal.name;
        return -1;
      }
    }
  }
  seen.clear();
  std::unordered_set<int64_t> ids;
  for (const LdfFrame& frame : m.frames) {
    if (!seen.insert(frame.name).second) {
      error = "duplicate frame: " + frame.name;
      return -1;
    }
    // Only sporadic frames go without an identifier of their own.
    if (frame.id >= 0 || frame.type != "sporadic") {
      if (frame.id < 0 || frame.id > 0x3F || frame.size < 1 || frame.size > 8) {
        error = "invalid frame layout: " + frame.name;
        return -1;
      }
    }
    if (frame.type != "event-triggered" && frame.id >= 0 && !ids.insert(frame.id).second) {
      error = "duplicate frame ID in LDF: " + frame.name;
      return -1;
    }
    if (!frame.publisher.empty() && !lookup(nodes, frame.publisher)) {
      error = "unknown frame publisher: " + frame.name;
      return -1;
    }
    for (const LdfPlacement& placement : frame.signals) {
      const LdfSignal* signal = lookup(signals, placement.signal);
      if (!signal) {
        error = "unknown signal " + placement.signal + " in frame " + frame.name;
        return -1;
      }
      if (placement.offset < 0 || placement.offset > 64 ||
          placement.offset + signal->size_bits > 8 * frame.size) {
        error = "signal does not fit frame: " + frame.name;
        return -1;
      }
    }
    for (const std::string& ref : frame.referenced) {
      if (!lookup(frames, ref)) {
        error = "invalid referenced frame: " + frame.name;
        return -1;
      }
    }
    if (!frame.collision_schedule.empty() && !lookup(schedules, frame.collision_schedule)) {
      error = "unknown collision schedule: " + frame.name;
      return -1;
    }
  }
  if (m.frames.empty()) {
    error = "LDF contains no frames";
    return -1;
  }
  seen.clear();
  for (const LdfSchedule& schedule : m.schedules) {
    if (!seen.insert(schedule.name).second) {
      error = "duplicate schedule: " + schedule.name;
      return -1;
    }
    for (const LdfScheduleEntry& entry : schedule.entries) {
      bool known = entry.kind == "configuration" || lookup(frames, entry.command) ||
                   entry.command == "MasterReq" || entry.command == "SlaveResp";
      if (!known) {
        error = "unknown schedule command: " + entry.command;
        return -1;
      }
      if (!(entry.delay_ms > 0) || entry.delay_ms > 65535) {
        error = "invalid delay in schedule " + schedule.name;
        return -1;
      }
    }
  }
  return 0;
}

LdfFrame implied_diagnostic_frame(const char* name, int64_t id) {
  LdfFrame frame;
  frame.name = name;
  frame.type = "diagnostic";
  frame.id = id;
  frame.size = 8;
  return frame;
}

}  // namespace

bool is_configuration_command(const std::string& word) {
  static const char* const kCommands[] = {"AssignNAD",          "ConditionalChangeNAD",
                                          "DataDump",           "SaveConfiguration",
                                          "AssignFrameIdRange", "FreeFormat",
                                          "AssignFrameId",      "UnassignFrameId"};
  for (const char* command : kCommands)
    if (word == command) return true;
  return false;
}

int parse_ldf_text(const std::string& text, const std::string& path, LdfModel& model,
                   std::string& error) {
  model = LdfModel();
  model.path = path;
  std::vector<Token> tokens;
  if (tokenize(text, tokens, error) != 0) return -1;
  LdfReader reader(tokens, model);
  if (!reader.parse(error)) return -1;
  finalize(model);
  return validate(model, error);
}

int parse_ldf(const char* path, LdfModel& model, std::string& error) {
  FILE* file = path && *path ? fopen(path, "rb") : nullptr;
  if (!file) {
    error = "cannot open LDF file";
    return -1;
  }
  // A directory opens and seeks on Linux; reading it is what fails.
  struct stat info;
  if (fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode)) {
    fclose(file);
    error = "cannot read LDF file";
    return -1;
  }
  long size = -1;
  if (fseek(file, 0, SEEK_END) != 0 || (size = ftell(file)) < 0 || fseek(file, 0, SEEK_SET) != 0) {
    fclose(file);
    error = "cannot seek LDF file";
    return -1;
  }
  if (size > kMaxFileSize) {
    fclose(file);
    error = "LDF file size is invalid";
    return -1;
  }
  std::string text((size_t)size, '\0');
  size_t got = size > 0 ? fread(&text[0], 1, (size_t)size, file) : 0;
  bool read_error = ferror(file) != 0;
  fclose(file);
  if (read_error || got != (size_t)size) {
    error = "cannot read LDF file";
    return -1;
  }
  return parse_ldf_text(text, path, model, error);
}

const LdfNode* find_node(const LdfModel& model, const std::string& name) {
  for (const LdfNode& node : model.nodes)
    if (node.name == name) return &node;
  return nullptr;
}

const LdfFrame* find_frame(const LdfModel& model, const std::string& name) {
  for (const LdfFrame& frame : model.frames)
    if (frame.name == name) return &frame;
  return nullptr;
}

const LdfSignal* find_signal(const LdfModel& model, const std::string& name) {
  for (const LdfSignal& signal : model.signals)
    if (signal.name == name) return &signal;
  return nullptr;
}

const LdfSchedule* find_schedule(const LdfModel& model, const std::string& name) {
  for (const LdfSchedule& schedule : model.schedules)
    if (schedule.name == name) return &schedule;
  return nullptr;
}

const char* checksum_name(const LdfModel& model, const LdfFrame& frame) {
  // Every LIN 1.x cluster and the diagnostic frames of any version use the classic sum.
  if (is_lin1x(model.protocol_version) || frame.id == 0x3C || frame.id == 0x3D) return "classic";
  return "enhanced";
}

void frame_initial_payload(const LdfModel& model, const LdfFrame& frame, uint8_t out[8]) {
  memset(out, 0, 8);
  for (const LdfPlacement& placement : frame.signals) {
    const LdfSignal* signal = find_signal(model, placement.signal);
    if (!signal || placement.offset < 0) continue;
    uint64_t value = initial_value_bits(signal->initial);
    for (int i = 0; i < signal->size_bits && i < 64; i++) {
      if (!((value >> i) & 1)) continue;
      int64_t bit = placement.offset + i;
      if (bit >= 64) break;
      out[bit / 8] |= (uint8_t)(1u << (bit % 8));
    }
  }
}

const char* frame_operation(const LdfModel& model, const LdfFrame& frame) {
  if (frame.type != "unconditional" && frame.type != "diagnostic") return nullptr;
  bool master_sends = (!frame.publisher.empty() && frame.publisher == model.master) ||
                      (frame.type == "diagnostic" && frame.id == 0x3C);
  return master_sends ? "master-write" : "master-read";
}

const LdfFrame* schedule_entry_frame(const LdfModel& model, const LdfScheduleEntry& entry) {
  if (entry.kind == "configuration") return nullptr;
  if (const LdfFrame* frame = find_frame(model, entry.command)) return frame;
  // Schedules may poll the diagnostic frames without a Diagnostic_frames section.
  static const LdfFrame master_req = implied_diagnostic_frame("MasterReq", 0x3C);
  static const LdfFrame slave_resp = implied_diagnostic_frame("SlaveResp", 0x3D);
  if (entry.command == "MasterReq") return &master_req;
  if (entry.command == "SlaveResp") return &slave_resp;
  return nullptr;
}

std::string ldf_format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = vxcli_vformat_alloc(format, args);
  va_end(args);
  std::string out = text ? text : "";
  free(text);
  return out;
}

int vxcli_ldf_inspect_file(const char* path, uint32_t* items, uint32_t* members, char* error,
                           size_t error_size) {
  LdfModel model;
  std::string message;
  if (parse_ldf(path, model, message) != 0) {
    if (error && error_size) snprintf(error, error_size, "%s", message.c_str());
    return -1;
  }
  if (items) *items = (uint32_t)model.frames.size();
  if (members) *members = (uint32_t)model.signals.size();
  if (error && error_size) error[0] = 0;
  return 0;
}
