// `check`: the errors in a definition, with their lines.

#include <fmt/format.h>

#include "caches/definition_reader.h"
#include "caches/program/commands.h"
#include "caches/program/wording.h"
#include "tools/json.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

struct Checked {
  std::string path;
  DefinitionResult result;
};

std::string checkScreen(const std::vector<Checked>& files, const tools::Screen& screen) {
  std::string text;
  for (const Checked& file : files) {
    if (file.result.problems.empty()) text += shown(file.path) + ": good\n";
    for (const Problem& problem : file.result.problems)
      text += tools::printable(screen, problem.text()) + "\n";
  }
  return text;
}

Value checkValue(const std::vector<Checked>& files) {
  Array list;
  for (const Checked& file : files) {
    Array faults;
    for (const Problem& problem : file.result.problems) {
      Dictionary fault{{"text", problem.reason}};
      if (problem.line != 0) fault.set("line", problem.line);
      faults.append(fault);
    }
    list.append(Dictionary{{"path", shown(file.path)}, {"faults", faults}});
  }
  return Dictionary{{"command", "caches check"}, {"files", list}};
}

}  // namespace

int checkCommand(const Console& console) {
  std::vector<Checked> files;
  bool good = true;
  for (const std::string& path : console.request.paths) {
    files.push_back({path, readDefinition(path)});
    good = good && files.back().result.problems.empty();
  }
  print(console.json ? tools::jsonText(checkValue(files)) : checkScreen(files, console.screen));
  return good ? tools::exit_met : tools::exit_short;
}

}  // namespace kelvane::caches
