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

/// A non-negative integer, sent as any integer type. Anything else has no unsigned
/// 64-bit value and counts as missing.
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

/// Always marked as a quota event: services that opted out are left out of every purge made here.
Dictionary requestFor(const std::string& volume) {
  return {{KELVANE_VOLUME, volume},
          {KELVANE_AMOUNT, purged_bytes},
          {KELVANE_ASYNC, true},
          {KELVANE_PURGE_TIMEOUT, pass_seconds},
          {KELVANE_QUOTA_EVENT, true}};
}

}  // namespace

/// The purges that an event asks for, one volume after the other.
struct Kelvane::EventPurges {
  const char* statistic;
  std::vector<std::string> volumes;
  std::size_t next = 0;
  Block handled;
};

void Kelvane::handleVFSStreamXPCEvent(const Dictionary& event, Block handled) {
  Condition condition = conditionOf(flagsOf(event));
  if (!condition.volumes || condition.volumes->empty()) {
    KVLog(5, "%s No volumes report low disk space, skipping purge", selector);
    handled();
    return;
  }
  purgeNext(std::make_shared<EventPurges>(
      EventPurges{condition.statistic, std::move(*condition.volumes), 0, std::move(handled)}));
}

void Kelvane::purgeNext(const std::shared_ptr<EventPurges>& event) {
  if (event->next == event->volumes.size()) {
    addReportStat(kelvane_domain, event->statistic, 1);
    event->handled();
    return;
  }
  const std::string& volume = event->volumes[event->next++];
  purge(requestFor(volume), nullptr,
        [self = std::static_pointer_cast<Kelvane>(shared_from_this()),
         event](const std::optional<Dictionary>& result) {
          if (result) self->bytes_purged_for_events_ += (*result)[KELVANE_AMOUNT].unsignedLongLongValue();
          self->purgeNext(event);
        });
}

void postVolumeEvent(std::uint64_t flag, const std::function<void(std::uint64_t bytes)>& ended) {
  const std::shared_ptr<Kelvane>& kelvane = Kelvane::sharedKelvane();
  const bool is_posted = xpc_post_event(vfs_event_stream, {{"_Flags", flag}},
                                        [kelvane, before = kelvane->bytesPurgedForEvents(), ended] {
                                          ended(kelvane->bytesPurgedForEvents() - before);
                                        });
  if (!is_posted) ended(0);
}

}  // namespace kelvane
