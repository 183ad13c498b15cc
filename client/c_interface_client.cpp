// The C interface: asking the daemon.

#include <vector>

#include "client/c_interface.h"
#include "kelvane/client.h"
#include "kelvane/purge_report.h"
#include "platform/foundation/utf8.h"

using namespace kelvane;
using namespace kelvane::client;

struct kelvane_client {
  explicit kelvane_client(const ClientOptions& options) : client(options) {}
  Client client;
};

struct kelvane_purge_result {
  using Services = std::vector<std::pair<std::string, std::uint64_t>>;
  explicit kelvane_purge_result(PurgeReport purge) : report(std::move(purge)) {
    for (const PurgePass& pass : report.passes) services.emplace_back(pass.freed.begin(), pass.freed.end());
  }
  const PurgeReport report;
  std::vector<Services> services;  // of each pass
};

struct kelvane_purgeable {
  std::uint64_t total = 0;
  std::vector<std::pair<std::string, std::uint64_t>> services;
};

struct kelvane_value {
  explicit kelvane_value(Value state) : value(std::move(state)), description(value.description()) {}
  const Value value;
  const std::string description;
};

namespace {

Client& clientOf(kelvane_client* client) { return required(client, "client").client; }

Dictionary requestOf(const kelvane_purge_request& given) {
  const int limit = given.urgency_limit;
  if (limit < 0 || limit > most_urgent)
    refuse("invalid urgency_limit " + std::to_string(limit) + ": expected 1 to 4, or 0 for 3");
  constexpr std::uint64_t longest_pass = 300;
  if (given.pass_seconds > longest_pass)
    refuse("invalid pass_seconds " + std::to_string(given.pass_seconds) + ": expected at most 300");
  return purgeRequest(textOf(given.volume, "volume"), given.amount, limit == 0 ? 3 : limit,
                      given.pass_seconds);
}

/// A service may answer a negative number, which counts as 0.
std::uint64_t bytesOf(const Value& figure) {
  const auto* const number = std::get_if<std::int64_t>(&figure.held());
  return number != nullptr && *number < 0 ? 0 : figure.unsignedLongLongValue();
}

kelvane_purgeable* purgeableOf(const Dictionary& answer) {
  auto purgeable = std::make_unique<kelvane_purgeable>();
  for (const auto& [service, bytes] : answer) {
    if (service == KELVANE_TOTAL_AVAILABLE) {
      purgeable->total = bytesOf(bytes);
    } else if (service != KELVANE_VOLUME) {
      purgeable->services.emplace_back(service, bytesOf(bytes));
    }
  }
  return purgeable.release();
}

kelvane_failure setState(kelvane_client* client, const char* key, const Value& value, kelvane_error* error) {
  return guarded(error, [&] { valueOf(clientOf(client).setState(value, textOf(key, "key"))); });
}

/// Null for an index that is too large.
template <class List>
const typename List::value_type* at(const List& list, std::size_t index) {
  return index < list.size() ? &list[index] : nullptr;
}

const std::pair<std::string, std::uint64_t>* serviceOf(const kelvane_purge_result* result, std::size_t pass,
                                                       std::size_t index) {
  const auto* const services = result != nullptr ? at(result->services, pass) : nullptr;
  return services != nullptr ? at(*services, index) : nullptr;
}

}  // namespace

kelvane_client* kelvane_client_new(const char* daemon_socket, kelvane_error* error) {
  return made(error, [&] { return new kelvane_client({optionalBytes(daemon_socket)}); });
}
void kelvane_client_free(kelvane_client* client) { delete client; }

// --- purges ---

kelvane_purge_result* kelvane_client_purge(kelvane_client* client, const kelvane_purge_request* request,
                                           kelvane_error* error) {
  return made(error, [&] {
    const Dictionary answer = valueOf(clientOf(client).purge(requestOf(copyOf(request, "request"))));
    return new kelvane_purge_result(readPurgeReport(answer));
  });
}

void kelvane_purge_result_free(kelvane_purge_result* result) { delete result; }
std::uint64_t kelvane_purge_result_freed(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.freed : 0;
}
std::uint64_t kelvane_purge_result_reported(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.reported : 0;
}
std::uint64_t kelvane_purge_result_free_before(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.free_before : 0;
}
std::uint64_t kelvane_purge_result_free_after(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.free_after : 0;
}
double kelvane_purge_result_seconds(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.seconds : 0;
}
bool kelvane_purge_result_cancelled(const kelvane_purge_result* result) {
  return result != nullptr && result->report.cancelled;
}
std::size_t kelvane_purge_result_pass_count(const kelvane_purge_result* result) {
  return result != nullptr ? result->report.passes.size() : 0;
}
int kelvane_purge_result_urgency(const kelvane_purge_result* result, std::size_t pass) {
  const auto* const found = result != nullptr ? at(result->report.passes, pass) : nullptr;
  return found != nullptr ? found->urgency : 0;
}
std::size_t kelvane_purge_result_service_count(const kelvane_purge_result* result, std::size_t pass) {
  const auto* const services = result != nullptr ? at(result->services, pass) : nullptr;
  return services != nullptr ? services->size() : 0;
}
const char* kelvane_purge_result_service(const kelvane_purge_result* result, std::size_t pass,
                                         std::size_t index) {
  const auto* const service = serviceOf(result, pass, index);
  return service != nullptr ? service->first.c_str() : "";
}
std::uint64_t kelvane_purge_result_service_freed(const kelvane_purge_result* result, std::size_t pass,
                                                 std::size_t index) {
  const auto* const service = serviceOf(result, pass, index);
  return service != nullptr ? service->second : 0;
}

// --- questions ---

kelvane_purgeable* kelvane_client_purgeable(kelvane_client* client, const char* volume, int urgency,
                                            kelvane_error* error) {
  return made(error, [&] {
    const Dictionary request{{KELVANE_VOLUME, textOf(volume, "volume")},
                             {KELVANE_URGENCY, checkedUrgency(urgency)}};
    return purgeableOf(valueOf(clientOf(client).itemizedPurgeableSpace(request)));
  });
}

void kelvane_purgeable_free(kelvane_purgeable* purgeable) { delete purgeable; }
std::uint64_t kelvane_purgeable_total(const kelvane_purgeable* purgeable) {
  return purgeable != nullptr ? purgeable->total : 0;
}
std::size_t kelvane_purgeable_service_count(const kelvane_purgeable* purgeable) {
  return purgeable != nullptr ? purgeable->services.size() : 0;
}
const char* kelvane_purgeable_service(const kelvane_purgeable* purgeable, std::size_t index) {
  const auto* const service = purgeable != nullptr ? at(purgeable->services, index) : nullptr;
  return service != nullptr ? service->first.c_str() : "";
}
std::uint64_t kelvane_purgeable_service_bytes(const kelvane_purgeable* purgeable, std::size_t index) {
  const auto* const service = purgeable != nullptr ? at(purgeable->services, index) : nullptr;
  return service != nullptr ? service->second : 0;
}

// --- the key-value store ---

kelvane_value* kelvane_client_state(kelvane_client* client, const char* key, kelvane_error* error) {
  return made(error,
              [&] { return new kelvane_value(valueOf(clientOf(client).getState(textOf(key, "key")))); });
}

kelvane_failure kelvane_client_set_state_boolean(kelvane_client* client, const char* key, bool value,
                                                 kelvane_error* error) {
  return setState(client, key, value, error);
}
kelvane_failure kelvane_client_set_state_integer(kelvane_client* client, const char* key, std::int64_t value,
                                                 kelvane_error* error) {
  return setState(client, key, value, error);
}
kelvane_failure kelvane_client_set_state_text(kelvane_client* client, const char* key, const char* value,
                                              kelvane_error* error) {
  return guarded(error, [&] {
    const std::string text = &required(value, "value");
    if (!isMessageText(text)) refuse("invalid value " + quoted(text) + ": not UTF-8");
    valueOf(clientOf(client).setState(text, textOf(key, "key")));
  });
}
kelvane_failure kelvane_client_remove_state(kelvane_client* client, const char* key, kelvane_error* error) {
  return setState(client, key, nullptr, error);
}

void kelvane_value_free(kelvane_value* value) { delete value; }

kelvane_value_kind kelvane_value_kind_of(const kelvane_value* value) {
  if (value == nullptr || value->value.isNothing()) return KELVANE_VALUE_NOTHING;
  const Value::Held& held = value->value.held();
  if (std::holds_alternative<bool>(held)) return KELVANE_VALUE_BOOLEAN;
  if (std::holds_alternative<std::int64_t>(held)) return KELVANE_VALUE_SIGNED;
  if (std::holds_alternative<std::uint64_t>(held)) return KELVANE_VALUE_UNSIGNED;
  if (std::holds_alternative<double>(held)) return KELVANE_VALUE_REAL;
  return value->value.isString() ? KELVANE_VALUE_TEXT : KELVANE_VALUE_OTHER;
}
bool kelvane_value_boolean(const kelvane_value* value) {
  return value != nullptr && value->value.boolValue();
}
std::int64_t kelvane_value_signed(const kelvane_value* value) {
  return value != nullptr ? value->value.longLongValue() : 0;
}
std::uint64_t kelvane_value_unsigned(const kelvane_value* value) {
  return value != nullptr ? value->value.unsignedLongLongValue() : 0;
}
double kelvane_value_real(const kelvane_value* value) {
  return value != nullptr ? value->value.doubleValue() : 0;
}
const char* kelvane_value_text(const kelvane_value* value) {
  const std::string* const text = value != nullptr ? value->value.string() : nullptr;
  return text != nullptr ? text->c_str() : nullptr;
}
const char* kelvane_value_description(const kelvane_value* value) {
  return value != nullptr ? value->description.c_str() : "";
}
