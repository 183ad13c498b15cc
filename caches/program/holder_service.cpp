#include "caches/program/holder_service.h"

#include <fmt/format.h>
#include <algorithm>
#include <exception>
#include <utility>

#include "caches/program/log.h"

namespace kelvane::caches {
namespace {

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<Definition> localHolders(const std::vector<std::string>& sockets, const DefinitionStore& store) {
  std::vector<Definition> local;
  for (const Definition& definition : store.definitions) {
    if (!definition.shipped && !contains(sockets, definition.name)) local.push_back(definition);
  }
  return local;
}

/// Why no definition of this name can be used.
std::string reasonFor(const std::string& name, const DefinitionStore& store) {
  if (contains(store.masked, name)) return "masked";
  for (const Problem& problem : store.problems) {
    if (problem.file.ends_with("/" + name + ".toml")) return problem.text();
  }
  return "no such definition";
}

client::CacheLimits limitsOf(const client::Request& request, const client::Cancellation& cancellation) {
  return {cancellation, request.answer_by};
}

}  // namespace

SocketHolders holdersOf(const std::string& socket, const std::vector<std::string>& sockets,
                        const DefinitionStore& store) {
  if (socket == local_socket) return {localHolders(sockets, store), {}};
  for (const Definition& definition : store.definitions) {
    if (definition.name == socket) return {{definition}, {}};
  }
  return {{}, reasonFor(socket, store)};
}

HolderService::HolderService(std::vector<Definition> definitions, Workers& workers, Log log)
    : definitions_(std::move(definitions)), workers_(workers), log_(std::move(log)) {}

std::optional<client::Purgeable> HolderService::purgeable(const client::Request& request,
                                                          const client::Cancellation& cancellation) {
  client::Purgeable answer;
  try {
    for (const Definition& definition : definitions_) {
      if (!definition.enabled) continue;
      const HolderReport report =
          workers_.survey(definition.name, request.volume, limitsOf(request, cancellation));
      answer.bytes += report.atUrgency(request.urgency).bytes;
    }
  } catch (const std::exception& failure) {
    logLine(fmt::format("a question about {} failed: {}", request.volume, failure.what()));
  }
  return answer;
}

std::uint64_t HolderService::purge(const client::Request& request, const client::Cancellation& cancellation) {
  std::uint64_t freed = 0;
  try {
    for (const Definition& definition : definitions_) {
      if (freed >= request.amount || cancellation.isCancelled()) break;
      if (!definition.enabled) continue;
      const PurgeRequest part{request.volume, request.urgency, request.amount - freed};
      const HolderReport report = workers_.purge(definition.name, part.volume, part.urgency, part.amount,
                                                 limitsOf(request, cancellation));
      freed += report.freed();
      for (const PurgeEntry& entry : purgeEntries(definition, part, report)) log_(entry);
    }
  } catch (const std::exception& failure) {
    logLine(fmt::format("a purge of {} failed: {}", request.volume, failure.what()));
  }
  return freed;
}

}  // namespace kelvane::caches
