// The C interface: services.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

#include "client/c_interface.h"
#include "kelvane/directory_service.h"

using namespace kelvane::client;

namespace {

/// The service whose handler this thread is running, so that stopping it does not wait for itself.
thread_local const kelvane_service* calling_for = nullptr;

class Calling {
 public:
  explicit Calling(const kelvane_service* service) : before_(std::exchange(calling_for, service)) {}
  ~Calling() { calling_for = before_; }
  Calling(const Calling&) = delete;
  Calling& operator=(const Calling&) = delete;

 private:
  const kelvane_service* const before_;
};

kelvane_service_state stateOf(ServiceState state) {
  switch (state) {
    case ServiceState::waiting:
      break;
    case ServiceState::registered:
      return KELVANE_SERVICE_REGISTERED;
    case ServiceState::refused:
      return KELVANE_SERVICE_REFUSED;
    case ServiceState::serving:
      return KELVANE_SERVICE_SERVING;
  }
  return KELVANE_SERVICE_WAITING;
}

struct StateHandler {
  kelvane_state_changed changed = nullptr;
  void* user_data = nullptr;

  void operator()(const kelvane_service* service, ServiceState state, const std::string& reason) const {
    if (changed == nullptr) return;
    const Calling calling(service);
    changed(stateOf(state), reason.c_str(), user_data);
  }
};

struct Handwritten {
  kelvane_service_handler handler;
  void* user_data;
};

/// A handler that calls a program's C functions.
class CHandler final : public ServiceHandler {
 public:
  CHandler(const kelvane_service* service, const Handwritten& functions, const StateHandler& state)
      : service_(service), functions_(functions), state_(state) {}

  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) override {
    const std::uint64_t bytes = call(functions_.handler.purgeable, request, cancellation);
    if (bytes == KELVANE_CANNOT_TELL) return std::nullopt;
    return Purgeable{bytes};
  }
  std::uint64_t purge(const Request& request, const Cancellation& cancellation) override {
    return call(functions_.handler.purge, request, cancellation);
  }
  std::uint64_t periodic(const Request& request) override {
    return call(functions_.handler.periodic, request,
                Cancellation(std::make_shared<std::atomic<bool>>(false)));
  }
  void stateChanged(ServiceState state, const std::string& reason) override {
    state_(service_, state, reason);
  }

 private:
  template <class Function>
  std::uint64_t call(Function function, const Request& request, const Cancellation& cancellation) {
    const Calling calling(service_);
    const kelvane_request given{request, cancellation};
    return function(&given, functions_.user_data);
  }

  const kelvane_service* const service_;  // only compared
  const Handwritten functions_;
  const StateHandler state_;
};

/// Exists between start and stop. The handler is destroyed last.
struct Running {
  std::unique_ptr<CHandler> handler;
  std::unique_ptr<Service> service;
  std::unique_ptr<DirectoryService> directories;
};

}  // namespace

struct kelvane_service {
  const std::variant<CacheRules, Handwritten> kind;
  ServiceOptions options;  // changed only while nothing runs
  StateHandler state;      // likewise
  std::mutex mutex;
  std::unique_ptr<Running> running;  // guarded by mutex
};

namespace {

/// Calls `change` if the service does not run.
template <class Change>
kelvane_failure setUp(kelvane_service* service, kelvane_error* error, const Change& change) {
  return guarded(error, [&] {
    kelvane_service& it = required(service, "service");
    const std::lock_guard lock(it.mutex);
    if (it.running != nullptr) refuse("the service " + quoted(it.options.id) + " is running");
    change(it);
  });
}

kelvane_service* newService(const char* id, std::variant<CacheRules, Handwritten> kind) {
  ServiceOptions options;
  options.id = textOf(id, "id");
  return new kelvane_service{std::move(kind), std::move(options), {}, {}, nullptr};
}

std::unique_ptr<Running> started(const kelvane_service& service) {
  auto running = std::make_unique<Running>();
  if (const auto* const rules = std::get_if<CacheRules>(&service.kind)) {
    DirectoryServiceOptions options;
    options.service = service.options;
    options.rules = *rules;
    options.state_changed = [&service, handler = service.state](ServiceState state,
                                                                const std::string& reason) {
      handler(&service, state, reason);
    };
    running->directories = valueOf(DirectoryService::start(options));
  } else {
    const auto& functions = std::get<Handwritten>(service.kind);
    running->handler = std::make_unique<CHandler>(&service, functions, service.state);
    running->service = valueOf(Service::start(*running->handler, service.options));
  }
  return running;
}

void stop(kelvane_service& service) {
  std::unique_ptr<Running> running;
  const std::lock_guard lock(service.mutex);
  running.swap(service.running);
}

}  // namespace

kelvane_service* kelvane_directory_service_new(const char* id, const kelvane_rules* rules,
                                               kelvane_error* error) {
  return made(error, [&] { return newService(id, required(rules, "rules").rules); });
}

kelvane_service* kelvane_service_new(const char* id, const kelvane_service_handler* handler, void* user_data,
                                     kelvane_error* error) {
  return made(error, [&] {
    const Handwritten functions{copyOf(handler, "handler"), user_data};
    if (functions.handler.purgeable == nullptr) refuse("handler->purgeable is NULL");
    if (functions.handler.purge == nullptr) refuse("handler->purge is NULL");
    kelvane_service* const service = newService(id, functions);
    service->options.periodic = functions.handler.periodic != nullptr;
    return service;
  });
}

void kelvane_service_free(kelvane_service* service) {
  if (service == nullptr || calling_for == service) return;
  stop(*service);
  delete service;
}

kelvane_failure kelvane_service_add_directory(kelvane_service* service, const char* path,
                                              kelvane_error* error) {
  return setUp(service, error, [&](kelvane_service& it) {
    std::string directory = bytesOf(path, "path");
    if (directory.front() != '/')
      refuse("invalid directory " + quoted(directory) + ": expected an absolute path");
    it.options.directories.push_back(std::move(directory));
  });
}

kelvane_failure kelvane_service_set_all_volumes(kelvane_service* service, bool all, kelvane_error* error) {
  return setUp(service, error, [&](kelvane_service& it) {
    if (std::holds_alternative<CacheRules>(it.kind))
      refuse("the service " + quoted(it.options.id) +
             " is a directory service: expected one made by kelvane_service_new");
    it.options.all_volumes = all;
  });
}

kelvane_failure kelvane_service_set_daemon_socket(kelvane_service* service, const char* path,
                                                  kelvane_error* error) {
  return setUp(service, error,
               [&](kelvane_service& it) { it.options.daemon_socket = bytesOf(path, "path"); });
}

kelvane_failure kelvane_service_set_passed_socket(kelvane_service* service, const char* name,
                                                  kelvane_error* error) {
  return setUp(service, error, [&](kelvane_service& it) { it.options.passed_socket = textOf(name, "name"); });
}

kelvane_failure kelvane_service_on_state(kelvane_service* service, kelvane_state_changed changed,
                                         void* user_data, kelvane_error* error) {
  return setUp(service, error, [&](kelvane_service& it) { it.state = {changed, user_data}; });
}

kelvane_failure kelvane_service_start(kelvane_service* service, kelvane_error* error) {
  return setUp(service, error, [](kelvane_service& it) { it.running = started(it); });
}

kelvane_failure kelvane_service_stop(kelvane_service* service, kelvane_error* error) {
  return guarded(error, [&] {
    kelvane_service& it = required(service, "service");
    if (calling_for == service)
      refuse("the service " + quoted(it.options.id) + " cannot be stopped by its own handler");
    stop(it);
  });
}

// --- requests ---

int kelvane_request_urgency(const kelvane_request* request) {
  return request != nullptr ? request->request.urgency : 0;
}
const char* kelvane_request_volume(const kelvane_request* request) {
  return request != nullptr ? request->request.volume.c_str() : "";
}
std::uint64_t kelvane_request_amount(const kelvane_request* request) {
  return request != nullptr ? request->request.amount : 0;
}
std::size_t kelvane_request_directory_count(const kelvane_request* request) {
  return request != nullptr ? request->request.directories.size() : 0;
}
const char* kelvane_request_directory(const kelvane_request* request, std::size_t index) {
  if (request == nullptr || index >= request->request.directories.size()) return "";
  return request->request.directories[index].c_str();
}
double kelvane_request_seconds_left(const kelvane_request* request) {
  using Clock = std::chrono::steady_clock;
  if (request == nullptr) return 0;
  if (request->request.answer_by == Clock::time_point::max()) return HUGE_VAL;
  const auto left = request->request.answer_by - Clock::now();
  return std::max(0.0, std::chrono::duration<double>(left).count());
}
bool kelvane_request_cancelled(const kelvane_request* request) {
  return request == nullptr || request->cancellation.isCancelled();
}
