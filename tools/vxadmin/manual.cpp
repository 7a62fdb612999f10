// help, the manual page and the completion scripts: all read the parser
// that the command table made, so none of them can drift from the commands.
#include <algorithm>
#include <functional>

#include "commands.h"
#include "vxnames.h"
#include "vxqi.h"

namespace vxadmin {
namespace {

// Every command that carries out something, with its path, in the table's
// order.
void eachCommand(CLI::App &node, const std::string &path,
                 const std::function<void(CLI::App &, const std::string &)> &visit) {
  std::vector<CLI::App *> subs = node.get_subcommands({});
  if (subs.empty() && !path.empty()) visit(node, path);
  for (CLI::App *sub : subs)
    eachCommand(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), visit);
}

// Every node, groups included, for the completion scripts.
void eachNode(CLI::App &node, const std::string &path,
              const std::function<void(CLI::App &, const std::string &)> &visit) {
  visit(node, path);
  for (CLI::App *sub : node.get_subcommands({}))
    eachNode(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), visit);
}

bool takesValue(const CLI::Option *option) { return option->get_expected_min() > 0; }

std::string longName(const CLI::Option *option) {
  return option->get_lnames().empty() ? "" : "--" + option->get_lnames()[0];
}

// Text as roff prints it: a '-' is a minus, a backslash itself, and a line
// that starts with '.' or '\'' is no request.
std::string roff(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '-')
      out += "\\-";
    else if (c == '\\')
      out += "\\e";
    else
      out += c;
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
  return out;
}

void manualOption(std::string &page, const CLI::Option *option) {
  std::string names;
  for (const std::string &name : option->get_snames()) names += "-" + name + ", ";
  for (const std::string &name : option->get_lnames()) names += "--" + name;
  page += ".TP\n\\fB" + roff(names) + "\\fR";
  if (takesValue(option)) page += " \\fI" + roff(option->get_type_name()) + "\\fR";
  page += "\n" + roff(option->get_description()) + "\n";
}

// The values a completion offers after an option: the names of an
// enumerated attribute's values.
std::string optionValues(const std::string &option) {
  const vxqi::QueueAttribute *attribute = vxqi::findQueueAttributeByOption(option);
  return attribute ? valueNames(*attribute, " ") : "";
}

// What values an attribute takes, and how it is set, for the manual page.
std::string attributeText(const vxqi::QueueAttribute &attribute) {
  std::string text;
  switch (attribute.type) {
    case vxqi::AttributeType::Integer:
      text = "a number from " + std::to_string(attribute.minimum) + " to " +
             std::to_string(attribute.maximum);
      break;
    case vxqi::AttributeType::Enumerated:
      text = "one of " + valueNames(attribute, ", ");
      break;
    case vxqi::AttributeType::String:
      text = "text of at most " + std::to_string(attribute.length) + " characters";
      break;
  }
  switch (attribute.setting) {
    case vxqi::Setting::Key:
      return text + "; names the queue";
    case vxqi::Setting::ReadOnly:
      return text + "; kept by the queue manager";
    case vxqi::Setting::OnCreate:
      return text + "; " + attribute.option + " of create queue";
    case vxqi::Setting::OnCreateAndChange:
      return text + "; " + attribute.option + " of create, change and copy queue";
  }
  return text;
}

struct CompletionTable {
  std::vector<std::string> paths;                           // "create queue"
  std::vector<std::pair<std::string, std::string>> words;   // path, its words
  std::vector<std::string> valued;                          // options that take a value
  std::vector<std::pair<std::string, std::string>> values;  // option, its values
};

CompletionTable completionTable(CLI::App &root) {
  CompletionTable table;
  eachNode(root, "", [&](CLI::App &node, const std::string &path) {
    if (!path.empty()) table.paths.push_back(path);
    std::string words;
    for (CLI::App *sub : node.get_subcommands({})) words += sub->get_name() + " ";
    for (const CLI::Option *option : node.get_options()) {
      std::string name = longName(option);
      if (name.empty()) continue;
      words += name + " ";
      if (!takesValue(option)) continue;
      if (std::find(table.valued.begin(), table.valued.end(), name) == table.valued.end()) {
        table.valued.push_back(name);
        std::string values = optionValues(name);
        if (!values.empty()) table.values.emplace_back(name, values);
      }
    }
    if (!words.empty()) words.pop_back();
    table.words.emplace_back(path, words);
  });
  return table;
}

std::string joined(const std::vector<std::string> &items, const std::string &separator,
                   const std::string &quote) {
  std::string out;
  for (const std::string &item : items)
    out += (out.empty() ? "" : separator) + quote + item + quote;
  return out;
}

std::string bashScript(const CompletionTable &table) {
  std::string script =
      "# bash completion of vxadmin, written by `vxadmin completion bash`.\n"
      "_vxadmin() {\n"
      "  local cur=${COMP_WORDS[COMP_CWORD]} prev=\n"
      "  ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}\n"
      "  local command= next word i skip=0\n"
      "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      "    word=${COMP_WORDS[i]}\n"
      "    if ((skip)); then skip=0; continue; fi\n"
      "    case $word in\n"
      "      " +
      joined(table.valued, "|", "") +
      ") skip=1; continue ;;\n"
      "      -*) continue ;;\n"
      "    esac\n"
      "    next=${command:+$command }$word\n"
      "    case $next in\n"
      "      " +
      joined(table.paths, "|", "\"") +
      ") command=$next ;;\n"
      "    esac\n"
      "  done\n"
      "  case $prev in\n"
      "    --file) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
      "    --data) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n";
  for (const auto &[option, values] : table.values)
    script +=
        "    " + option + ") COMPREPLY=($(compgen -W \"" + values + "\" -- \"$cur\")); return ;;\n";
  script += "    " + joined(table.valued, "|", "") +
            ") COMPREPLY=(); return ;;\n"
            "  esac\n"
            "  local words=\n"
            "  case $command in\n";
  for (const auto &[path, words] : table.words)
    script += "    \"" + path + "\") words=\"" + words + "\" ;;\n";
  script +=
      "  esac\n"
      "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
      "}\n"
      "complete -F _vxadmin vxadmin\n";
  return script;
}

std::string zshScript(const CompletionTable &table) {
  std::string script =
      "#compdef vxadmin\n"
      "# zsh completion of vxadmin, written by `vxadmin completion zsh`.\n"
      "_vxadmin() {\n"
      "  local command= next word i skip=0\n"
      "  for ((i = 2; i < CURRENT; i++)); do\n"
      "    word=${words[i]}\n"
      "    if ((skip)); then skip=0; continue; fi\n"
      "    case $word in\n"
      "      (" +
      joined(table.valued, "|", "") +
      ") skip=1; continue ;;\n"
      "      (-*) continue ;;\n"
      "    esac\n"
      "    next=${command:+$command }$word\n"
      "    case $next in\n"
      "      (" +
      joined(table.paths, "|", "\"") +
      ") command=$next ;;\n"
      "    esac\n"
      "  done\n"
      "  case ${words[CURRENT-1]} in\n"
      "    (--file) _files; return ;;\n"
      "    (--data) _files -/; return ;;\n";
  for (const auto &[option, values] : table.values)
    script += "    (" + option + ") compadd -- " + values + "; return ;;\n";
  script += "    (" + joined(table.valued, "|", "") +
            ") return ;;\n"
            "  esac\n"
            "  local -a candidates\n"
            "  case $command in\n";
  for (const auto &[path, words] : table.words)
    script += "    (\"" + path + "\") candidates=(" + words + ") ;;\n";
  script +=
      "  esac\n"
      "  compadd -- $candidates\n"
      "}\n"
      "if [[ ${zsh_eval_context[-1]} == loadautofunc ]]; then\n"
      "  _vxadmin \"$@\"\n"
      "else\n"
      "  compdef _vxadmin vxadmin\n"
      "fi\n";
  return script;
}

}  // namespace

std::string helpText(CLI::App &root, const std::vector<std::string> &topic) {
  CLI::App *node = &root;
  std::string path, parent = "vxadmin";
  for (const std::string &word : topic) {
    CLI::App *sub = nullptr;
    for (CLI::App *candidate : node->get_subcommands({}))
      if (candidate->get_name() == word) sub = candidate;
    if (!sub) {
      std::string names;
      for (CLI::App *candidate : node->get_subcommands({}))
        names += (names.empty() ? "" : ", ") + candidate->get_name();
      throw UsageError{"no command '" + (path.empty() ? "" : path + " ") + word + "'" +
                       (names.empty() ? "" : " (the commands here: " + names + ")")};
    }
    if (node != &root) parent += " " + node->get_name();
    node = sub;
    path += (path.empty() ? "" : " ") + word;
  }
  // The root's own help: help() would describe the command parsed, help.
  if (node == &root)
    return root.get_formatter()->make_help(&root, "vxadmin", CLI::AppFormatMode::Normal);
  return node->help(parent);
}

std::string manualPage(CLI::App &root) {
  std::string page = ".TH VXADMIN 1 \"\" \"vxadmin " + std::string(VX_VERSION) +
                     "\" \"User Commands\"\n"
                     ".SH NAME\nvxadmin \\- administers the queue manager of this machine\n"
                     ".SH SYNOPSIS\n.B vxadmin\n[\\fIglobal options\\fR] \\fIcommand\\fR "
                     "[\\fIarguments\\fR] [\\fIoptions\\fR]\n"
                     ".SH DESCRIPTION\n"
                     "vxadmin hosts the queue manager of its data directory in its own process. "
                     "Every administrative command goes to the command server (one that runs "
                     "already, else one that vxadmin hosts); put and get use the queue interface. "
                     "Output is a table for people, or with \\-\\-json a JSON document whose keys "
                     "never change. Errors go to standard error, one line and, where there is "
                     "one, a line that says what to do. Global options may come before or after "
                     "the command.\n"
                     ".SH COMMANDS\n";
  eachCommand(root, "", [&](CLI::App &command, const std::string &path) {
    std::string usage;
    for (const CLI::Option *option : command.get_options())
      if (option->get_positional())
        usage += option->get_required() ? " \\fI" + option->get_name() + "\\fR"
                                        : " [\\fI" + option->get_name() + "\\fR]";
    page += ".SS " + roff(path) + usage + "\n" + roff(command.get_description()) + "\n";
    bool any = false;
    for (const CLI::Option *option : command.get_options()) {
      if (option->get_group() != "Options" || longName(option) == "--help") continue;
      if (!any) page += ".RS\n";
      any = true;
      if (option->get_positional())
        page += ".TP\n.I " + option->get_name() + "\n" + roff(option->get_description()) + "\n";
      else
        manualOption(page, option);
    }
    if (any) page += ".RE\n";
  });
  page += ".SH GLOBAL OPTIONS\n";
  for (const CLI::Option *option : root.get_options())
    if (option->get_group() == "Global options" || longName(option) == "--version")
      manualOption(page, option);
  page +=
      ".SH QUEUE ATTRIBUTES\nThe attributes of a queue by their JSON keys, as status and show "
      "queue report them, and the options that set them:\n";
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    const char *where = attribute.shown == vxqi::Shown::InShow ? " (show queue)" : "";
    page += ".TP\n.B " + roff(attribute.key) + "\n" + roff(attribute.description) + where + ": " +
            roff(attributeText(attribute)) + ".\n";
  }
  page += ".SH EXIT STATUS\n";
  for (const StatusRow &row : statuses())
    page += ".TP\n.B " + std::to_string(row.status) + "\n" + roff(row.meaning) + "\n";
  page +=
      ".PP\nA shell exits with the status of its first command that did not succeed.\n"
      ".SH ENVIRONMENT\n"
      ".TP\n.B VXQM_DATA\nthe data directory when \\-\\-data is not given\n"
      ".TP\n.B XDG_STATE_HOME\nthe data directory is $XDG_STATE_HOME/vxai when neither "
      "\\-\\-data nor VXQM_DATA names one, else ~/.local/state/vxai\n"
      ".TP\n.B NO_COLOR\nvxadmin writes no colour, whatever its value\n"
      ".SH FILES\n"
      ".TP\n.I DIR/QMGR.db\nthe queue manager's objects and persistent messages\n"
      ".TP\n.I DIR/QMGR.server.pid\nthe pid of the command server of serve or start\n"
      ".TP\n.I DIR/QMGR.server.log\nthe log of start's command server\n";
  return page;
}

std::string completionScript(CLI::App &root, const std::string &shell) {
  CompletionTable table = completionTable(root);
  return shell == "zsh" ? zshScript(table) : bashScript(table);
}

}  // namespace vxadmin
