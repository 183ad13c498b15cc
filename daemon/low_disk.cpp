// What is done when a volume runs low: an event of the file-system stream becomes a purge of a fixed amount
// on each volume that it concerns.

#include <unistd.h>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "common/keys.h"
#include "daemon/kelvane.h"
#include "daemon/low_disk.h"
#include "daemon/start_up.h"
#include "support/log.h"
#include "support/statistics.h"
#include "support/volumes.h"

namespace kelvane {
namespace {

constexpr const char* selector = "handleVFSStreamXPCEvent:";

constexpr std::uint64_t purged_bytes = 262'144'000;
constexpr int pass_seconds = 300;

using Volumes = std::optional<std::vector<std::string>>;

struct Condition {
  const char* statistic = nullptr;  // null for an event of no known condition
  Volumes volumes;
};

/// An integer from 0 on, whichever type it was sent as. Anything else has no unsigned 64-bit value and counts
/// as missing.
std::uint64_t flagsOf(const Dictionary& event) {
  const Value::Held& held = event["_Flags"].held();
  if (const auto* flags = std::get_if<std::uint64_t>(&held)) return *flags;
  const auto* flags = std::get_if<std::int64_t>(&held);
  return flags != nullptr && *flags > 0 ? static_cast<std::uint64_t>(*flags) : 0;
}

Condition conditionOf(std::uint64_t flags) {
  if ((flags & VQ_LOWDISK) != 0) {
    KVLog(3, "%s caught VQ_LOWDISK", selector);
    return {"KV_LOWDISK_EVENT", lowSpaceVolumes()};
  }
  if ((flags & VQ_VERYLOWDISK) != 0) {
    KVLog(3, "%s caught VQ_VERYLOWDISK", selector);
    return {"KV_VERYLOWDISK_EVENT", lowSpaceVolumes()};
  }
  if ((flags & VFS_QUOTA) != 0) {
    KVLog(3, "%s caught VFS_QUOTA", selector);
    Volumes over = quotaVolumes(::getuid());
    return {"KV_VFS_QUOTA_EVENT", over ? std::move(over) : lowSpaceVolumes()};
  }
  return {nullptr, lowSpaceVolumes()};
}

/// A quota event in every case: services that opted out of those are left out of every purge made here.
Dictionary requestFor(const std::string& volume) {
  return {{KELVANE_VOLUME, volume},
          {KELVANE_AMOUNT, purged_bytes},
          {KELVANE_ASYNC, true},
          {KELVANE_PURGE_TIMEOUT, pass_seconds},
          {KELVANE_QUOTA_EVENT, true}};
}

}  // namespace

void Kelvane::handleVFSStreamXPCEvent(const Dictionary& event) {
  const Condition condition = conditionOf(flagsOf(event));
  if (!condition.volumes || condition.volumes->empty()) {
    KVLog(5, "%s No volumes report low disk space, skipping purge", selector);
    return;
  }
  for (const std::string& volume : *condition.volumes) {
    const std::optional<Dictionary> result = purge(requestFor(volume), nullptr);
    if (result) bytes_purged_for_events_ += (*result)[KELVANE_AMOUNT].unsignedLongLongValue();
  }
  addReportStat(kelvane_domain, condition.statistic, 1);
}

std::uint64_t postVolumeEvent(std::uint64_t flag) {
  const std::shared_ptr<Kelvane>& kelvane = Kelvane::sharedKelvane();
  const std::uint64_t before = kelvane->bytesPurgedForEvents();
  xpc_post_event(vfs_event_stream, {{"_Flags", flag}});
  return kelvane->bytesPurgedForEvents() - before;
}

}  // namespace kelvane
