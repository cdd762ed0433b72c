// Build-time generator: asks the freshly built vxcli for its JSON help (root
// and every command) and writes the bash completion script and the man page,
// so both always match the catalogue compiled into the binary.
//
//   catalog_docs_gen <path-to-vxcli> <completion-out> <manpage-out>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "json/json.h"

namespace {

struct Option {
  std::string syntax, name, value_type, required, default_value, unit, description;
  std::vector<std::string> names;  // every "--name" written in the syntax
};

struct Command {
  std::string path, usage, summary, arguments, example, notes;
  bool group = false;
  std::vector<Option> options;
};

struct Catalogue {
  std::string version;
  std::vector<std::pair<std::string, std::string>> categories;  // name, summary
  std::vector<Command> commands;
  std::vector<Option> globals;
};

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "catalog_docs_gen: %s\n", message.c_str());
  exit(1);
}

// One parsed JSON document with small accessors over the project's reader.
class Doc {
 public:
  explicit Doc(std::string text) : text_(std::move(text)), tokens_(32768) {
    count_ = vxcli_json_parse(text_.c_str(), tokens_.data(), static_cast<int>(tokens_.size()));
    if (count_ <= 0) fail("help output is not valid JSON (" + std::to_string(count_) + ")");
  }
  int get(int object, const char* key) const {
    return vxcli_json_object_get(text_.c_str(), tokens_.data(), object, key);
  }
  std::vector<int> items(int array) const {
    std::vector<int> out;
    if (array < 0 || tokens_[static_cast<size_t>(array)].type != VXCLI_JSON_ARRAY) return out;
    int child = array + 1;
    for (int n = 0; n < tokens_[static_cast<size_t>(array)].size; n++) {
      out.push_back(child);
      child = vxcli_json_next(tokens_.data(), child);
    }
    return out;
  }
  // String value; null and missing read as "".
  std::string str(int object, const char* key) const {
    int index = get(object, key);
    if (index < 0) return "";
    const vxcli_json_token& t = tokens_[static_cast<size_t>(index)];
    if (t.type != VXCLI_JSON_STRING) {
      std::string raw = text_.substr(static_cast<size_t>(t.start),
                                     static_cast<size_t>(t.end - t.start));
      return raw == "null" ? "" : raw;
    }
    std::vector<char> out(static_cast<size_t>(t.end - t.start) * 4 + 8);
    if (vxcli_json_string(text_.c_str(), &t, out.data(), out.size()) != 0)
      fail(std::string("bad string for ") + key);
    return out.data();
  }

 private:
  std::string text_;
  std::vector<vxcli_json_token> tokens_;
  int count_;
};

std::string shell_quote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  return out + "'";
}

std::string run(const std::string& vxcli, const std::string& args) {
  std::string command = shell_quote(vxcli) + " " + args + " --format=json";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) fail("cannot run " + command);
  std::string out;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  int status = pclose(pipe);
  if (status != 0) fail("'" + command + "' failed with status " + std::to_string(status));
  return out;
}

// Every "--name" inside a syntax ("--message=<id|DBC-name>, --id=<id>" has two).
std::vector<std::string> syntax_names(const std::string& syntax) {
  std::vector<std::string> out;
  for (size_t p = syntax.find("--"); p != std::string::npos; p = syntax.find("--", p + 2)) {
    size_t end = p + 2;
    while (end < syntax.size() && !strchr(" ),=]|", syntax[end])) end++;
    if (end > p + 2) out.push_back(syntax.substr(p + 2, end - p - 2));
  }
  return out;
}

Option read_option(const Doc& doc, int index) {
  Option o;
  o.syntax = doc.str(index, "syntax");
  o.name = doc.str(index, "name");
  o.value_type = doc.str(index, "value_type");
  o.required = doc.str(index, "required");
  o.default_value = doc.str(index, "default");
  o.unit = doc.str(index, "unit");
  o.description = doc.str(index, "description");
  o.names = syntax_names(o.syntax);
  return o;
}

Catalogue load(const std::string& vxcli) {
  Catalogue cat;
  Doc root(run(vxcli, "help"));
  cat.version = root.str(0, "version");
  for (int c : root.items(root.get(0, "categories")))
    cat.categories.emplace_back(root.str(c, "name"), root.str(c, "summary"));
  for (int g : root.items(root.get(0, "global_options"))) cat.globals.push_back(read_option(root, g));
  for (int c : root.items(root.get(0, "commands"))) {
    Command command;
    command.path = root.str(c, "path");
    Doc doc(run(vxcli, "help " + command.path));
    if (doc.str(0, "path") != command.path) fail("help for '" + command.path + "' answered another path");
    command.group = doc.str(0, "kind") == "group";
    command.usage = doc.str(0, "usage");
    command.summary = doc.str(0, "summary");
    command.arguments = doc.str(0, "arguments");
    command.example = doc.str(0, "example");
    command.notes = doc.str(0, "notes");
    for (int o : doc.items(doc.get(0, "options"))) command.options.push_back(read_option(doc, o));
    cat.commands.push_back(std::move(command));
  }
  if (cat.commands.empty() || cat.categories.empty()) fail("empty catalogue");
  return cat;
}

std::vector<std::string> words(const std::string& path) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t space = path.find(' ', start);
    out.push_back(path.substr(start, space - start));
    if (space == std::string::npos) return out;
    start = space + 1;
  }
}

std::string join(const std::vector<std::string>& list) {
  std::string out;
  for (const std::string& w : list) out += (out.empty() ? "" : " ") + w;
  return out;
}

// Literal choices of an enum option ("--checksum=<auto|classic|enhanced>").
std::vector<std::string> enum_values(const Option& o, const std::string& name) {
  std::vector<std::string> out;
  if (o.value_type != "enum") return out;
  size_t at = o.syntax.find("--" + name + "=<");
  if (at == std::string::npos) return out;
  size_t start = at + name.size() + 4;
  size_t end = o.syntax.find('>', start);
  if (end == std::string::npos) return out;
  std::string body = o.syntax.substr(start, end - start);
  size_t p = 0;
  for (;;) {
    size_t bar = body.find('|', p);
    out.push_back(body.substr(p, bar - p));
    if (bar == std::string::npos) break;
    p = bar + 1;
  }
  return out;
}

bool takes_path(const Option& o) {
  for (const char* hint : {"path", "file", "<image>", "<firmware>", "directory", "library",
                           "services.xml"})
    if (o.syntax.find(hint) != std::string::npos) return true;
  return false;
}

std::string completion(const Catalogue& cat) {
  std::map<std::string, std::set<std::string>> children;  // path -> next words
  std::vector<std::string> category_order;
  for (const auto& [name, summary] : cat.categories) category_order.push_back(name);
  std::map<std::string, std::vector<std::string>> child_order;
  for (const Command& c : cat.commands) {
    std::vector<std::string> w = words(c.path);
    for (size_t depth = 1; depth < w.size(); depth++) {
      std::string parent = join({w.begin(), w.begin() + static_cast<long>(depth)});
      if (children[parent].insert(w[depth]).second) child_order[parent].push_back(w[depth]);
    }
  }

  std::string s;
  s += "# bash completion for vxcli " + cat.version + "\n";
  s += "# Generated at build time from `vxcli help --format=json`; do not edit.\n\n";
  s += "_vxcli_children()\n{\n    case \"$1\" in\n";
  s += "        '') echo '" + join(category_order) + "' ;;\n";
  for (const auto& [parent, list] : child_order) s += "        '" + parent + "') echo '" + join(list) + "' ;;\n";
  s += "    esac\n}\n\n";

  s += "_vxcli_options()\n{\n    case \"$1\" in\n";
  for (const Command& c : cat.commands) {
    if (c.group) continue;
    std::vector<std::string> opts;
    for (const Option& o : c.options)
      for (const std::string& n : o.names)
        opts.push_back("--" + n + (o.value_type == "boolean" ? "" : "="));
    s += "        '" + c.path + "') echo '" + join(opts) + "' ;;\n";
  }
  s += "    esac\n}\n\n";

  s += "_vxcli_values()\n{\n    case \"$1 --$2\" in\n";
  std::vector<std::string> file_keys;
  for (const Command& c : cat.commands) {
    for (const Option& o : c.options)
      for (const std::string& n : o.names) {
        std::vector<std::string> values = enum_values(o, n);
        if (!values.empty()) s += "        '" + c.path + " --" + n + "') echo '" + join(values) + "' ;;\n";
        else if (takes_path(o)) file_keys.push_back(c.path + " --" + n);
      }
  }
  s += "        *' --format') echo 'text json jsonl csv' ;;\n";
  s += "    esac\n}\n\n";

  s += "_vxcli_takes_file()\n{\n    case \"$1 --$2\" in\n";
  for (const std::string& key : file_keys) s += "        '" + key + "') return 0 ;;\n";
  s += "        *' --project') return 0 ;;\n";
  s += "    esac\n    return 1\n}\n\n";

  std::string globals;
  for (const Option& o : cat.globals)
    for (const std::string& n : o.names)
      if (n != "version") globals += (globals.empty() ? "" : " ") + ("--" + n + (o.syntax.find('=') != std::string::npos ? "=" : ""));

  s += R"BASH(_vxcli()
{
    local cur words cword
    if declare -F _init_completion >/dev/null 2>&1; then
        _init_completion -n = || return
    else
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
        cur=${COMP_WORDS[COMP_CWORD]}
    fi

    # "vxcli help <path>" completes the path it describes.
    local start=1
    [[ ${words[1]} == help && $cword -gt 1 ]] && start=2

    # The command path: the longest run of leading words that the catalogue knows.
    local path='' i w next
    for ((i = start; i < cword; i++)); do
        w=${words[i]}
        [[ $w == -* ]] && continue
        next=${path:+$path }$w
        if [[ " $(_vxcli_children "$path") " == *" $w "* ]]; then
            path=$next
        else
            break
        fi
    done

    if [[ $cur == --*=* ]]; then
        local name=${cur%%=*} value=${cur#*=}
        name=${name#--}
        if _vxcli_takes_file "$path" "$name"; then
            COMPREPLY=($(compgen -f -P "--$name=" -- "$value"))
        else
            COMPREPLY=($(compgen -P "--$name=" -W "$(_vxcli_values "$path" "$name")" -- "$value"))
        fi
        return
    fi
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$(_vxcli_options "$path") )BASH" + globals + R"BASH(" -- "$cur"))
        [[ ${COMPREPLY[0]} == *= ]] && compopt -o nospace 2>/dev/null
        return
    fi
    local subwords
    subwords=$(_vxcli_children "$path")
    if [[ -n $subwords && ( -z $path || $i -ge $cword ) ]]; then
        COMPREPLY=($(compgen -W "$subwords" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -F _vxcli vxcli
)BASH";
  return s;
}

// roff text: backslashes doubled, hyphens as minus signs, no control line starts.
std::string roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') out += "\\e";
    else if (c == '-') out += "\\-";
    else out += c;
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
  return out;
}

std::string option_details(const Option& o) {
  std::string details;
  auto add = [&](const char* label, const std::string& value) {
    if (value.empty()) return;
    details += (details.empty() ? "" : "; ") + std::string(label) + ": " + value;
  };
  add("required", o.required);
  add("default", o.default_value);
  add("unit", o.unit);
  return details.empty() ? "" : " (" + details + ")";
}

std::string manpage(const Catalogue& cat) {
  std::string m;
  m += ".\\\" Generated at build time from `vxcli help --format=json`; do not edit.\n";
  m += ".TH VXCLI 1 \"\" \"vxcli " + roff(cat.version) + "\" \"User Commands\"\n";
  m += ".SH NAME\nvxcli \\- command line interface for multi\\-channel CAN, CAN FD and LIN bus "
       "analyzers\n";
  m += ".SH SYNOPSIS\n.B vxcli\n.I category action\n.RI [ subaction ]\n.RI [ options ]\n.br\n"
       ".B vxcli help\n.RI [ category \" [\" action \" [\" subaction ]]]\n";
  m += ".SH DESCRIPTION\n"
       "One invocation does one thing and exits with 0 on success and 1 on failure. Every "
       "command answers in plain text, in one bounded JSON document (\\-\\-format=json), as one "
       "JSON object per event (\\-\\-format=jsonl) or, where it lists rows, as CSV "
       "(\\-\\-format=csv).\n.PP\n"
       "Channels are selected as SN/port (recommended), UID/port or legacy index. "
       "Times named timeout, cycle, interval and delay are milliseconds; duration is seconds.\n"
       ".PP\n"
       "Channels that must stay open between invocations are held by a background daemon "
       "(vxcli daemon start), reached on 127.0.0.1 port 4502.\n.PP\n"
       "This page lists every command;\n"
       ".B vxcli help \\-\\-format=json\n"
       "is the machine\\-readable form of the same contract.\n";
  m += ".SH GLOBAL OPTIONS\n";
  for (const Option& o : cat.globals) {
    m += ".TP\n.B " + roff(o.syntax) + "\n" + roff(o.description);
    if (!o.default_value.empty()) m += " Default: " + roff(o.default_value) + ".";
    m += "\n";
  }
  m += ".SH COMMANDS\n";
  for (const auto& [name, summary] : cat.categories) {
    m += ".SS " + roff(name) + "\n" + roff(summary) + "\n";
    for (const Command& c : cat.commands) {
      if (words(c.path)[0] != name || c.group) continue;
      m += ".TP\n.B " + roff(c.usage) + "\n" + roff(c.summary) + "\n";
      if (!c.arguments.empty()) m += ".IP\nArguments: " + roff(c.arguments) + "\n";
      if (!c.options.empty()) {
        m += ".RS\n";
        for (const Option& o : c.options)
          m += ".TP\n.B " + roff(o.syntax) + "\n" + roff(o.description) + roff(option_details(o)) + "\n";
        m += ".RE\n";
      }
      if (!c.example.empty()) m += ".IP\nExample:\n.nf\n  " + roff(c.example) + "\n.fi\n";
      if (!c.notes.empty()) m += ".IP\n" + roff(c.notes) + "\n";
    }
  }
  m += ".SH EXIT STATUS\n0 on success, 1 on every failure. In json and jsonl modes a failure is "
       "one object with \"status\":\"error\" on standard output.\n";
  m += ".SH FILES\n"
       ".TP\n.I $XDG_STATE_HOME/vxcli/\nState: daemon log and the database registry "
       "(databases.json).\n"
       ".TP\n.I $XDG_RUNTIME_DIR/vxcli/\nRuntime: the daemon's pid file.\n";
  return m;
}

void write_file(const std::string& path, const std::string& text) {
  std::string temp = path + ".tmp";
  FILE* out = fopen(temp.c_str(), "w");
  if (!out) fail("cannot write " + temp);
  bool ok = fwrite(text.data(), 1, text.size(), out) == text.size();
  if (fclose(out) != 0 || !ok || rename(temp.c_str(), path.c_str()) != 0) {
    remove(temp.c_str());
    fail("cannot write " + path);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: catalog_docs_gen <vxcli> <completion-out> <manpage-out>\n");
    return 2;
  }
  Catalogue cat = load(argv[1]);
  write_file(argv[2], completion(cat));
  write_file(argv[3], manpage(cat));
  return 0;
}
