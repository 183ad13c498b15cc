#include "tools/services.h"

#include <fmt/format.h>
#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "common/keys.h"
#include "platform/foundation/directory_enumerator.h"
#include "support/entitlements.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"

namespace kelvane::tools {
namespace {

/// Where the daemon looks; the second counts where both declare a service.
const std::vector<std::string> descriptor_folders = {"/System/Library/Kelvane",
                                                     "/OrvelInternal/Library/Kelvane"};

/// The inodes of the sockets that somebody listens on, by path. To connect would start a service that waits
/// to be called.
std::map<std::string, std::string> listeningSockets(const std::string& unix_table) {
  constexpr unsigned accepts_connections = 0x10000;
  std::map<std::string, std::string> inodes;
  std::ifstream table(unix_table);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string skipped;
    std::string inode;
    unsigned flags = 0;
    words >> skipped >> skipped >> skipped >> std::hex >> flags >> skipped >> skipped >> inode;
    std::string path;
    if (words && (flags & accepts_connections) != 0 && std::getline(words >> std::ws, path))
      inodes[path] = inode;
  }
  return inodes;
}

std::string stateText(const Declared& service, const Screen& screen) {
  if (service.ID.empty()) return coloured(screen, Colour::red, "declares no service");
  if (!service.overridden_by.empty())
    return coloured(screen, Colour::dim, "overridden by " + printable(screen, service.overridden_by));
  return service.listening ? coloured(screen, Colour::green, "reachable")
                           : coloured(screen, Colour::red, "nobody listens on its socket");
}

bool counts(const Declared& service) { return !service.ID.empty() && service.overridden_by.empty(); }

std::string entitlementText(const Entitlement& entitlement, const Screen& screen) {
  switch (entitlement.entitled) {
    case Entitled::yes:
      return coloured(screen, Colour::green, "entitled") + " (" + entitlement.reason + ")";
    case Entitled::no:
      return coloured(screen, Colour::yellow, "not entitled") + ": " + entitlement.reason;
    case Entitled::unknown:
      break;
  }
  return coloured(screen, Colour::dim, "entitled or not: unknown; " + printable(screen, entitlement.reason));
}

const char* nameOf(Entitled entitled) {
  return entitled == Entitled::yes ? "yes" : entitled == Entitled::no ? "no" : "unknown";
}

}  // namespace

std::vector<Declared> declaredServices(const std::vector<std::string>& folders, const std::string& sockets,
                                       const std::string& unix_table) {
  const std::map<std::string, std::string> listening = listeningSockets(unix_table);
  std::vector<Declared> services;
  for (const std::string& folder : folders) {
    enumerateDirectory(folder, [&](const std::string& entry) {
      Declared service;
      service.file = checkFile(fmt::format("{}/{}", folder, entry));
      if (const std::string* const ID = service.file.contents[KELVANE_ID].string()) service.ID = *ID;
      const auto socket = listening.find(sockets + "/" + service.ID);
      service.listening = socket != listening.end();
      if (service.listening) service.inode = socket->second;
      for (Declared& earlier : services) {
        if (!service.ID.empty() && earlier.ID == service.ID) earlier.overridden_by = service.file.path;
      }
      services.push_back(std::move(service));
    });
  }
  return services;
}

void noteEntitlements(std::vector<Declared>& services) {
  std::set<std::string> inodes;
  for (const Declared& service : services) inodes.insert(service.inode);
  inodes.erase("");
  const Holders holders = holdersOf(inodes);
  const std::string doubt = doubtAboutGrants(grantFolders());
  for (Declared& service : services) {
    service.entitlement = service.listening ? entitlementOf(service.inode, holders, doubt)
                                            : Entitlement{Entitled::unknown, "it does not run"};
  }
}

std::string servicesScreen(const std::vector<Declared>& services, const Screen& screen) {
  std::string text;
  for (const Declared& service : services) {
    const std::string name = service.ID.empty() ? "(none)" : printable(screen, service.ID);
    text += coloured(screen, Colour::bold, cut(screen, name, screen.width)) + "\n";
    text += "  " + printable(screen, service.file.path) + "\n  " + stateText(service, screen) + "\n";
    if (counts(service)) text += "  " + entitlementText(service.entitlement, screen) + "\n";
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
    if (counts(service)) {
      entry.set("entitled", nameOf(service.entitlement.entitled));
      entry.set("entitled_reason", service.entitlement.reason);
    }
    list.append(entry);
  }
  return Dictionary{{"command", "services"}, {"services", list}};
}

int servicesCommand(const Options& options, const Screen& screen) {
  std::vector<Declared> services = declaredServices(descriptor_folders, runtimePathOf(options, "services"));
  noteEntitlements(services);
  print(options.json ? jsonText(servicesValue(services)) : servicesScreen(services, screen));
  return exit_met;
}

}  // namespace kelvane::tools
