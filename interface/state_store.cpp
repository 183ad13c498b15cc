// The persistent state: one dictionary of the settings suite, in which clients and the daemon's own parts
// keep values under keys. What was never stored is read from the built-in defaults.
//
// A write is acknowledged when it is in the file. One that cannot be stored, because the volume is full or
// the store could not be opened, changes nothing: the caller gets an error, which is logged. Without a store,
// reads return the defaults. A stored object that is not a dictionary is not the daemon's own; reading leaves
// it alone, and the first write replaces it with a new state.
//
// The recent-info record is the one value that the daemon changes many times a second. It stays an object in
// memory while only the daemon uses it. Any other access to the state writes it first, so the difference is
// invisible. Only a daemon that is killed loses it, and it can be rebuilt.

#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/keys.h"
#include "interface/caller.h"
#include "interface/client_interface.h"
#include "interface/limits.h"
#include "platform/dispatch/group.h"
#include "platform/foundation/archive.h"
#include "platform/foundation/footprint.h"
#include "platform/foundation/user_defaults.h"
#include "platform/xpc/wire.h"
#include "support/log.h"
#include "support/statistics.h"

namespace kelvane {
namespace {

constexpr const char* get_selector = "_clientGetState:replyBlock:";
constexpr const char* get_sync_selector = "clientGetStateSync:";
constexpr const char* set_selector = "_clientSetState:key:replyBlock:";
constexpr const char* set_sync_selector = "clientSetStateSync:key:";

// An answer with the whole state wraps every value in one more dictionary.
constexpr std::size_t most_nested = xpc::most_nested - 1;

/// What the state holds under the key, or else the default.
Value entryOf(const Dictionary& state, const std::string& key, const Dictionary& default_values) {
  if (state.contains(key)) return state[key];
  if (default_values.contains(key))
    KVLog(5, "%s using default value: %@ for key: %@", get_selector, default_values[key], key);
  return default_values[key];
}

/// The whole state, with the defaults of the keys it lacks.
Dictionary completed(Dictionary state, const Dictionary& default_values) {
  for (const auto& [key, value] : default_values) {
    if (!state.contains(key)) state.set(key, value);
  }
  return state;
}

Value valueFor(const Value& key, const Value& stored, const Dictionary& default_values) {
  if (key.string() == nullptr) {
    KVLog(3, "%s key is not an NSString: %@", get_selector, key);
    return {};
  }
  if (stored.isNothing()) return default_values[*key.string()];
  if (!stored.isDictionary()) {
    KVLog(3, "%s persistent_state is not a dictionary: %@", get_selector, stored);
    return {};
  }
  if (*key.string() == KELVANE_USER_DEFAULTS) return completed(*stored.dictionary(), default_values);
  return entryOf(*stored.dictionary(), *key.string(), default_values);
}

std::size_t entrySize(const std::string& key, const Value& value) {
  return value.isNothing() ? 0 : foundation::entry_footprint + key.size() + foundation::footprint(value);
}

/// Why the state cannot hold a value of this form, for any writer; empty when it can.
std::string misfit(const Value& value) {
  if (!value.nestsDeeperThan(most_nested)) return {};
  return fmt::format("the value nests deeper than {} arrays and dictionaries", most_nested);
}

/// Why no user may store this; empty when it may.
std::string excessOf(const std::string& key, const Value& value) {
  if (std::string why = misfit(value); !why.empty()) return why;
  const std::size_t size = entrySize(key, value);
  if (size <= largest_state_entry) return {};
  return fmt::format("the value and its key take {} bytes of memory: expected at most {}", size,
                     largest_state_entry);
}

bool isPrivileged(uid_t user) { return user == 0 || user == ::geteuid(); }

void noteNotKept(const std::string& key, const std::string& why) {
  KVLog(3, "%s unable to keep the value for key: %@: %s", set_selector, Value(key), why.c_str());
  addReportStat(kelvane_domain, "KV_STATE_NOT_KEPT", 1);
}

/// The semaphore is already signalled here, since reads and writes answer before they return.
void awaitAnswer(const dispatch_semaphore_t& semaphore, const char* selector) {
  if (dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER) == 0) return;
  const int error = errno;
  KVLog(3, "%s dispatch_semaphore_wait error: %s", selector, std::strerror(error));
}

}  // namespace

/// The user gets a turn, no matter how many requests others have queued.
void ClientInterface::takeTurn(Block item) {
  turns_.add(callingUser(), std::move(item));
  dispatch_async(defaults_queue(), [self = shared_from_this()] { self->turns_.runNext(); });
}

void ClientInterface::clientSetState(Value value, std::string key, Reply<> reply) {
  auto call = xpc::currentCall();
  if (const std::string excess = call ? excessOf(key, value) : std::string(); !excess.empty()) {
    call.refuse(xpc::error_limits_exceeded, excess);
    return;
  }
  takeTurn([self = shared_from_this(), user = callingUser(), call = std::move(call), value = std::move(value),
            key = std::move(key), reply = std::move(reply)] {
    const std::string excess = call ? self->excessOfState(value, key, user) : std::string();
    if (excess.empty()) {
      self->_clientSetState(value, key, reply, call);
    } else {
      call.refuse(xpc::error_limits_exceeded, excess);
    }
  });
}

void ClientInterface::clientGetState(xpc::Anything key, Reply<Value> reply) {
  takeTurn([self = shared_from_this(), user = callingUser(), key = std::move(key), reply = std::move(reply)] {
    self->_clientGetState(key.value, [&](const Value& value) { self->answerState(value, reply, user); });
  });
}

/// Encoding a large value takes longer than everything else here.
void ClientInterface::answerState(const Value& value, const Reply<Value>& reply, uid_t user) {
  if (!foundation::footprintExceeds(value, small_answer)) {
    reply(value);
    return;
  }
  large_answers_.add(user, [reply, value] { reply(value); });
  dispatch_async(large_answers_queue_, [self = shared_from_this()] { self->large_answers_.runNext(); });
}

/// Why the state cannot take this value from that user; empty when it can. Making it smaller is always
/// possible.
std::string ClientInterface::excessOfState(const Value& value, const std::string& key, uid_t user) const {
  if (userDefaults() == nullptr) return {};
  const std::size_t most = isPrivileged(user) ? largest_privileged_state : largest_state;
  const Value stored = userDefaults()->objectForKey(KELVANE_USER_DEFAULTS);
  const std::size_t before = userDefaults()->footprintOf(KELVANE_USER_DEFAULTS);
  const std::size_t replaced = stored.isDictionary() ? entrySize(key, (*stored.dictionary())[key]) : before;
  const std::size_t added = entrySize(key, value);
  if (added <= replaced || before - replaced + added <= most) return {};
  return fmt::format("the state takes {} bytes of memory, and {} more would exceed the limit of {}", before,
                     added - replaced, most);
}

void ClientInterface::_clientSetState(const Value& value, const std::string& key, const Reply<>& reply,
                                      const xpc::CurrentCall& call) {
  dispatch_assert_queue(defaults_queue());
  settleState();
  if (const std::string failure = store(value, key); !failure.empty()) {
    noteNotKept(key, failure);
    call.refuse(xpc::error_failed, "the value is not kept: " + failure);
  } else {
    if (key == KELVANE_RECENT_SERVICE_STATS) held_record_ = {};
    if (key == KELVANE_CACHE_ENABLED) notifyRecipients(key, value, call);
  }
  reply();  // has no effect on a refused call
}

/// Why the value could not be stored, which leaves the file unchanged; empty on success.
std::string ClientInterface::store(const Value& value, const std::string& key) {
  if (std::string why = misfit(value); !why.empty()) return why;
  const auto& defaults = userDefaults();
  if (defaults == nullptr) return "the state could not be opened";
  const bool stored = defaults->setEntry(value, key, KELVANE_USER_DEFAULTS);
  sayNotices();
  return stored ? std::string() : defaults->lastError();
}

/// Includes what other processes stored, and a record that could not be written.
Value ClientInterface::storedState() {
  const auto& defaults = userDefaults();
  if (defaults == nullptr) return {};
  defaults->synchronize();
  sayNotices();
  Value stored = defaults->objectForKey(KELVANE_USER_DEFAULTS);
  if (!held_record_.isUnwritten() || !(stored.isNothing() || stored.isDictionary())) return stored;
  Dictionary state = stored.isDictionary() ? *stored.dictionary() : Dictionary();
  state.set(KELVANE_RECENT_SERVICE_STATS, held_record_.archive());
  return state;
}

void ClientInterface::sayNotices() {
  for (const std::string& notice : userDefaults()->takeNotices())
    KVLog(3, "%s state file %s", set_selector, notice.c_str());
}

void ClientInterface::_clientGetState(const Value& key, const Reply<Value>& reply) {
  dispatch_assert_queue(defaults_queue());
  KVLog(5, "%s ENTRY", get_selector);
  settleState();
  reply(valueFor(key, key.isString() ? storedState() : Value(), default_values()));
  KVLog(5, "%s EXIT", get_selector);
}

void ClientInterface::settleState() {
  dispatch_assert_queue(defaults_queue());
  // Without a store, the held record is the only copy.
  if (!held_record_.isUnwritten() || userDefaults() == nullptr) return;
  const std::string failure = store(held_record_.archive(), KELVANE_RECENT_SERVICE_STATS);
  if (failure.empty()) {
    held_record_.noteWritten();
  } else if (held_record_.noteRefused()) {
    noteNotKept(KELVANE_RECENT_SERVICE_STATS, failure);
  }
}

void ClientInterface::clientSetStateSync(const StateObject& value, const std::string& key) {
  dispatch_assert_queue(defaults_queue());
  const auto* const record = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&value);
  if (record != nullptr && key == KELVANE_RECENT_SERVICE_STATS) {
    held_record_.hold(*record);
    return;
  }
  const Value stored = record != nullptr ? Value(archivedData(**record)) : std::get<Value>(value);
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  _clientSetState(stored, key, [&] { dispatch_semaphore_signal(semaphore); });
  awaitAnswer(semaphore, set_sync_selector);
}

StateObject ClientInterface::clientGetStateSync(const std::string& key) {
  KVLog(5, "%s ENTRY", get_sync_selector);
  dispatch_assert_queue(defaults_queue());
  KVLog(5, "%s %d", get_sync_selector, 641);
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  StateObject result;
  if (held_record_.isUnwritten() && key == KELVANE_RECENT_SERVICE_STATS) {
    KVLog(5, "%s ENTRY", get_selector);
    result = held_record_.record();
    KVLog(5, "%s EXIT", get_selector);
    dispatch_semaphore_signal(semaphore);
  } else {
    _clientGetState(key, [&](const Value& value) {
      result = value.data() != nullptr ? unarchived(*value.data()) : value;
      dispatch_semaphore_signal(semaphore);
    });
  }
  awaitAnswer(semaphore, get_sync_selector);
  KVLog(5, "%s EXIT", get_sync_selector);
  return result;
}

/// A record, or any other object that was archived; nothing for what is no archive.
StateObject ClientInterface::unarchived(const Data& archive) {
  if (auto record = held_record_.unarchived(archive)) return record;
  return unarchivedValue(archive);
}

}  // namespace kelvane
