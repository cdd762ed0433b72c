// Line- and token-oriented DBC reader. It understands the statements the codec
// and the registry need (BO_, SG_, VAL_, BA_, BA_DEF_DEF_) and skips every
// other statement line by line, so unknown or broken input never stops a read.
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "database/dbc.h"

namespace {

void skip_line(std::istream& stream) {
  stream.clear();
  stream.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
}

bool ends_with(const std::string& text, const char* tail) {
  size_t n = std::char_traits<char>::length(tail);
  return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

bool same_id(uint32_t a, uint32_t b) { return (a & 0x7FFFFFFFu) == (b & 0x7FFFFFFFu); }

// Explicit VFrameFormat value of one message. Values other than the four
// standard ones (for example J1939PG) say nothing about FD and do not take
// away the 29-bit identifier that bit 31 announces.
void apply_frame_format(Message& message, unsigned value) {
  if (value == 0 || value == 1 || value == 14 || value == 15) {
    message.extended = value == 1 || value == 15;
    message.fd = value == 14 || value == 15;
  } else {
    message.extended = (message.id & 0x80000000u) != 0;
    message.fd = message.size > 8;
  }
}

// Default VFrameFormat: only the FD values have an effect.
void apply_frame_format_default(Message& message, unsigned value) {
  if (value != 14 && value != 15) return;
  message.fd = true;
  message.extended = value == 15;
}

bool parse_frame_format_name(const std::string& token, unsigned* value) {
  std::string text = CleanDbcToken(token);
  if (text == "StandardCAN") *value = 0;
  else if (text == "ExtendedCAN") *value = 1;
  else if (text == "StandardCAN_FD") *value = 14;
  else if (text == "ExtendedCAN_FD") *value = 15;
  else {
    if (text.empty() || text.size() > 9) return false;
    unsigned v = 0;
    for (char c : text) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + unsigned(c - '0');
    }
    *value = v;
  }
  return true;
}

Signal* find_signal(std::vector<Message>& messages, uint32_t id, const std::string& name) {
  for (Message& message : messages) {
    if (!same_id(message.id, id)) continue;
    for (Signal& signal : message.signals)
      if (signal.name == name) return &signal;
  }
  return nullptr;
}

// VAL_ <id> <signal> <value> "<description>" ... ;
void read_value_descriptions(std::istream& stream, std::vector<Message>& messages) {
  uint32_t id = 0;
  std::string signal_name;
  if (!(stream >> id >> signal_name)) {  // environment-variable tables have no id
    skip_line(stream);
    return;
  }
  Signal* signal = find_signal(messages, id, signal_name);
  if (!signal) {
    skip_line(stream);
    return;
  }
  std::string value, description, more;
  while (stream >> value) {
    if (value == ";") break;
    if (!(stream >> description)) break;
    bool last = false;
    if (!description.empty() && description.back() == ';') {
      description.pop_back();
      last = true;
    }
    // A description with blanks arrives as several tokens; glue them back.
    if (description == "\"" ||
        (!description.empty() && description.front() == '"' && description.back() != '"')) {
      while (stream >> more) {
        description += ' ';
        description += more;
        if (more.empty() || more.back() == '"' || ends_with(more, "\";")) break;
      }
    }
    if (description.size() > 2 && description.front() == '"') {
      if (ends_with(description, "\";")) {
        description = description.substr(1, description.size() - 3);
        last = true;
      } else if (description.back() == '"') {
        description = description.substr(1, description.size() - 2);
      }
    }
    signal->valueDescriptions.emplace_back(value, description);
    if (last) break;
  }
  skip_line(stream);
}

void read_attribute(std::istream& stream, std::vector<Message>& messages) {
  std::string name, object;
  uint32_t id = 0;
  if (!(stream >> name)) return skip_line(stream);
  if (IsDbcAttribute(name, "GenMsgCycleTime")) {
    uint32_t value = 0;
    if (stream >> object >> id >> value && object == "BO_")
      for (Message& m : messages)
        if (same_id(m.id, id)) m.cycleTime = value;
  } else if (IsDbcAttribute(name, "VFrameFormat")) {
    unsigned value = 0;
    if (stream >> object >> id >> value && object == "BO_")
      for (Message& m : messages)
        if (same_id(m.id, id)) apply_frame_format(m, value);
  } else if (IsDbcAttribute(name, "CANFD_BRS")) {
    std::string value;
    if (stream >> object >> id >> value && object == "BO_")
      for (Message& m : messages)
        if (same_id(m.id, id)) m.brs = ParseDbcBool(value);
  }
  skip_line(stream);
}

struct Defaults {
  bool have_frame_format = false;
  unsigned frame_format = 0;
  bool have_brs = false;
  bool brs = false;
};

// Attribute defaults reach the messages before and after the statement.
void read_attribute_default(std::istream& stream, std::vector<Message>& messages,
                            Defaults& defaults) {
  std::string name, value;
  if (stream >> name >> value) {
    if (IsDbcAttribute(name, "CANFD_BRS")) {
      defaults.have_brs = true;
      defaults.brs = ParseDbcBool(value);
      for (Message& m : messages) m.brs = defaults.brs;
    } else if (IsDbcAttribute(name, "VFrameFormat")) {
      unsigned format = 0;
      if (parse_frame_format_name(value, &format) && (format == 14 || format == 15)) {
        defaults.have_frame_format = true;
        defaults.frame_format = format;
        for (Message& m : messages) apply_frame_format_default(m, format);
      }
    }
  }
  skip_line(stream);
}

}  // namespace

uint16_t Signal::getLastBit() const {
  if (startBit >= 512) return 0;
  size_t index = size_t(startBit / 8) * 8 + 7 - startBit % 8;
  size_t last = index + (length ? length - 1 : 0);
  if (last > 511) return 0;
  return vxcli_dbc_motorola_bittable()[last];
}

std::set<std::string> Message::getTo() const {
  std::set<std::string> all;
  for (const Signal& signal : signals) all.insert(signal.to.begin(), signal.to.end());
  return all;
}

DBCIterator::DBCIterator(const std::string& path) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) throw std::invalid_argument("The File could not be opened");
  init(file);
}

DBCIterator::DBCIterator(std::istream& stream) { init(stream); }

void DBCIterator::init(std::istream& stream) {
  messages_.clear();
  std::vector<Message> messages;
  Defaults defaults;
  std::string keyword;
  while (stream >> keyword) {
    if (keyword == "BO_") {
      Message message;
      if (!(stream >> message)) {
        skip_line(stream);
        continue;
      }
      if (defaults.have_frame_format) apply_frame_format_default(message, defaults.frame_format);
      if (defaults.have_brs) message.brs = defaults.brs;
      messages.push_back(std::move(message));
    } else if (keyword == "VAL_") {
      read_value_descriptions(stream, messages);
    } else if (keyword == "BA_") {
      read_attribute(stream, messages);
    } else if (keyword == "BA_DEF_DEF_") {
      read_attribute_default(stream, messages, defaults);
    } else {
      skip_line(stream);  // CM_ continuation lines land here one by one
    }
  }
  if (stream.eof()) messages_ = std::move(messages);
}

std::istream& operator>>(std::istream& stream, Message& message) {
  Message read;
  std::string colon;
  if (!(stream >> read.id >> read.name)) return stream;
  if (read.name.find(':') == std::string::npos) {
    if (!(stream >> colon)) return stream;
  } else {
    std::erase(read.name, ':');
  }
  if (!(stream >> read.size >> read.from)) return stream;
  read.extended = (read.id & 0x80000000u) != 0;
  read.fd = read.size > 8;
  read.cycleTime = 0;
  read.brs = false;
  stream.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  if (!stream.fail() && !stream.eof()) {
    for (;;) {
      Signal signal;
      if (!(stream >> signal)) break;
      read.signals.push_back(std::move(signal));
    }
  }
  stream.clear();
  message = std::move(read);
  return stream;
}

std::istream& operator>>(std::istream& stream, Signal& signal) {
  // The next statement (BO_, BA_...) ends the signal list without being consumed.
  if (stream.peek() == 'B') {
    stream.setstate(std::ios::failbit);
    return stream;
  }
  std::string line;
  if (!std::getline(stream, line)) return stream;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) {
    stream.setstate(std::ios::failbit);
    return stream;
  }
  std::istringstream in(line);
  std::string token;
  Signal read;
  if (!(in >> token) || token != "SG_" || !(in >> read.name >> token)) {
    stream.setstate(std::ios::failbit);
    return stream;
  }
  if (token == ":") {
    read.multiplexor = DBC_PLAIN;
  } else if (token == "M") {
    read.multiplexor = DBC_MULTIPLEXOR;
    in >> token;
  } else {
    // m<N>, and m<N>M of extended multiplexing, read as m<N>
    std::istringstream number(token.substr(1));
    if (!(number >> read.multiplexNum)) {
      stream.setstate(std::ios::failbit);
      return stream;
    }
    read.multiplexor = DBC_MULTIPLEXED;
    in >> token;
  }
  int order = 1;
  char sign = '+';
  in >> read.startBit;
  in.get();
  in >> read.length;
  in.get();
  in >> order >> sign;
  read.order = order != 0 ? DBC_INTEL : DBC_MOTOROLA;
  read.sign = sign == '+' ? 0 : 1;
  in.ignore(std::numeric_limits<std::streamsize>::max(), '(');
  in >> read.factor;
  in.get();
  in >> read.offset;
  in.get();
  in.ignore(std::numeric_limits<std::streamsize>::max(), '[');
  in >> read.minimum;
  in.get();
  in >> read.maximum;
  in.get();
  if (in.fail()) {
    stream.setstate(std::ios::failbit);
    return stream;
  }
  // Unit and receivers are optional; a unit with a blank ("deg C") leaves its
  // second half as the receivers token.
  if (in >> token) {
    read.unit = trim(token, "\"");
    if (in >> token) {
      std::vector<std::string> receivers;
      split(token, ',', receivers);
      read.to.insert(receivers.begin(), receivers.end());
    }
  }
  signal = std::move(read);
  return stream;
}

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> out;
  split(text, delimiter, out);
  return out;
}

void split(const std::string& text, char delimiter, std::vector<std::string>& out) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(delimiter, start);
    if (end == std::string::npos) {
      out.push_back(text.substr(start));
      return;
    }
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string trim(const std::string& text, const std::string& characters) {
  size_t first = text.find_first_not_of(characters);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(characters);
  return text.substr(first, last - first + 1);
}

std::string CleanDbcToken(const std::string& token) {
  size_t first = token.find_first_not_of('"');
  if (first == std::string::npos) return std::string();
  std::string text = token.substr(first);
  while (!text.empty() && (text.back() == '"' || text.back() == ';')) text.pop_back();
  return text;
}

bool ParseDbcBool(const std::string& token) {
  std::string text = CleanDbcToken(token);
  return text == "1" || text == "true" || text == "TRUE";
}

bool IsDbcAttribute(const std::string& token, const std::string& name) {
  return CleanDbcToken(token) == name;
}
