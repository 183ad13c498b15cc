#include "tools/services.h"

#include <fmt/format.h>
#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "common/keys.h"
#include "platform/foundation/directory_enumerator.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"

namespace kelvane::tools {
namespace {

/// Where the daemon looks; the second counts where both declare a service.
const std::vector<std::string> descriptor_folders = {"/System/Library/Kelvane",
                                                     "/OrvelInternal/Library/Kelvane"};

/// The paths of the sockets that somebody listens on. To connect would start a service that waits to be
/// called.
std::set<std::string> listeningSockets(const std::string& unix_table) {
  constexpr unsigned accepts_connections = 0x10000;
  std::set<std::string> paths;
  std::ifstream table(unix_table);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string skipped;
    unsigned flags = 0;
    words >> skipped >> skipped >> skipped >> std::hex >> flags >> skipped >> skipped >> skipped;
    std::string path;
    if (words && (flags & accepts_connections) != 0 && std::getline(words >> std::ws, path))
      paths.insert(path);
  }
  return paths;
}

std::string stateText(const Declared& service, const Screen& screen) {
  if (service.ID.empty()) return coloured(screen, Colour::red, "declares no service");
  if (!service.overridden_by.empty())
    return coloured(screen, Colour::dim, "overridden by " + printable(screen, service.overridden_by));
  return service.listening ? coloured(screen, Colour::green, "reachable")
                           : coloured(screen, Colour::red, "nobody listens on its socket");
}

}  // namespace

std::vector<Declared> declaredServices(const std::vector<std::string>& folders, const std::string& sockets,
                                       const std::string& unix_table) {
  const std::set<std::string> listening = listeningSockets(unix_table);
  std::vector<Declared> services;
  for (const std::string& folder : folders) {
    enumerateDirectory(folder, [&](const std::string& entry) {
      Declared service{checkFile(folder + "/" + entry), {}, {}, false};
      if (const std::string* const ID = service.file.contents[KELVANE_ID].string()) service.ID = *ID;
      service.listening = listening.contains(sockets + "/" + service.ID);
      for (Declared& earlier : services) {
        if (!service.ID.empty() && earlier.ID == service.ID) earlier.overridden_by = service.file.path;
      }
      services.push_back(std::move(service));
    });
  }
  return services;
}

std::string servicesScreen(const std::vector<Declared>& services, const Screen& screen) {
  std::string text;
  for (const Declared& service : services) {
    const std::string name = service.ID.empty() ? "(none)" : printable(screen, service.ID);
    text += coloured(screen, Colour::bold, cut(screen, name, screen.width)) + "\n";
    text += "  " + printable(screen, service.file.path) + "\n  " + stateText(service, screen) + "\n";
    if (!service.file.faults.empty())
      text += "  " + coloured(screen, Colour::yellow, "has faults: see `kelvanectl check`") + "\n";
  }
  return text.empty() ? "No service is declared; those that check in are seen by `kelvanectl purgeable`.\n"
                      : text;
}

Value servicesValue(const std::vector<Declared>& services) {
  Array list;
  for (const Declared& service : services) {
    Dictionary entry{{"path", service.file.path},
                     {"listening", service.listening},
                     {"faults", service.file.faults.size()}};
    if (!service.ID.empty()) entry.set("service", service.ID);
    if (!service.overridden_by.empty()) entry.set("overridden_by", service.overridden_by);
    list.append(entry);
  }
  return Dictionary{{"command", "services"}, {"services", list}};
}

int servicesCommand(const Options& options, const Screen& screen) {
  const std::string launch = launchSocketOf(options);
  const std::string sockets =
      launch.substr(0, launch.size() - std::string_view("launch.sock").size()) + "services";
  const std::vector<Declared> services = declaredServices(descriptor_folders, sockets);
  print(options.json ? jsonText(servicesValue(services)) : servicesScreen(services, screen));
  return exit_met;
}

}  // namespace kelvane::tools
