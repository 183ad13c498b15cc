#pragma once

// The C interface of libkelvane: being a service, asking for space, purging a cache directory by rules.
// C11; also usable from C++, which has an interface of its own with more in it (kelvane/service.h and
// others).
//
//   kelvane_error error = KELVANE_ERROR_INIT;
//   kelvane_rules* rules = kelvane_rules_new(&error);
//   kelvane_rules_set_age(rules, 3, 7 * 24 * 3600, &error);   // at urgency 3, what is a week old may go
//   kelvane_service* service = kelvane_directory_service_new("com.example.thumbs", rules, &error);
//   kelvane_service_add_directory(service, "/var/cache/thumbs", &error);
//   if (kelvane_service_start(service, &error) != KELVANE_OK) fprintf(stderr, "%s\n", error.message);
//
// Errors. A function that can fail takes a kelvane_error as its last argument, which may be NULL. It returns
// a kelvane_failure, or NULL instead of an object. NULL and values out of range are refused with
// KELVANE_BAD_REQUEST; only the arguments named "may be NULL" can be left out. The functions that only read a
// result cannot fail: for NULL, and for an index out of range, they return 0, "" or NULL. No C++
// exception leaves the library.
//
// Objects. What a function named *_new returns is released with the function named *_free of the same type,
// which accepts NULL. A result (kelvane_purge_result, kelvane_purgeable, kelvane_value) never changes.
// A returned string belongs to the object that the function read, and is valid as long as that object.
// Strings that are passed in are copied.
//
// Structures begin with their size. The *_INIT macros set it. A later version of the library may add members
// at the end, and reads and writes only those that the program was compiled with.
//
// Threads. Any function may be called on any thread; no two threads may use one object at the same time,
// unless its comment allows it.
//
// Strings are UTF-8; paths are bytes as the file system has them. Amounts are bytes. Urgencies range from 1
// (only what nobody will miss) to 4 (all that can be made again). A process that was forked from one that
// uses the library must not use it before it has called exec.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "kelvane/export.h"

#ifdef __cplusplus
extern "C" {
#endif
// NOLINTBEGIN(modernize-use-using): this is C

/// The version of the library, such as "0.1.0".
KELVANE_EXPORT const char* kelvane_version(void);

// --- errors ---

typedef enum kelvane_failure {
  KELVANE_OK = 0,
  KELVANE_NO_DAEMON = 1,        // no process listens on the daemon's socket
  KELVANE_REFUSED = 2,          // the daemon does not serve this process, or not this request
  KELVANE_BAD_REQUEST = 3,      // an argument or a request is invalid; the message says which
  KELVANE_CONNECTION_LOST = 4,  // the connection ended before the answer; the work may have been done
  KELVANE_NO_MEMORY = 5,
  KELVANE_INTERNAL = 6,  // a defect of the library
} kelvane_failure;

/// Belongs to the caller, who may reuse it. A call that fails fills it; a call that succeeds leaves it
/// unchanged.
typedef struct kelvane_error {
  size_t size;
  kelvane_failure failure;
  char message[1024];  // for people; NUL-terminated, truncated if longer
} kelvane_error;
#define KELVANE_ERROR_INIT \
  { sizeof(kelvane_error), KELVANE_OK, "" }

// --- volumes ---

/// Writes the mount point under which the daemon knows the volume of `path` to `volume`, a buffer of `size`
/// bytes. 4096 are always enough. Do not compare paths instead: kelvane/volume.h says why.
KELVANE_EXPORT kelvane_failure kelvane_volume_of(const char* path, char* volume, size_t size,
                                                 kelvane_error* error);

// --- rules: which files of a cache directory may go, and when ---
// Age is the time since the newest of a file's three times: modification, status change, access.

typedef struct kelvane_rules kelvane_rules;

typedef enum kelvane_unit {
  KELVANE_UNIT_FILE = 0,
  /// Directories that an include pattern names. Each goes as a whole or stays as a whole.
  KELVANE_UNIT_DIRECTORY = 1,
} kelvane_unit;

/// How a program shows that it is using the cache.
typedef enum kelvane_lock {
  KELVANE_LOCK_FLOCK = 0,   // flock(2)
  KELVANE_LOCK_RECORD = 1,  // fcntl(2), F_SETLK
  KELVANE_LOCK_EXISTS = 2,  // the file is there
} kelvane_lock;

/// New rules have no age, so nothing goes at any urgency; the youngest age is an hour.
KELVANE_EXPORT kelvane_rules* kelvane_rules_new(kelvane_error* error);
KELVANE_EXPORT void kelvane_rules_free(kelvane_rules* rules);

/// Files that are at least this old may go at `urgency` and above.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_age(kelvane_rules* rules, int urgency, uint64_t seconds,
                                                     kelvane_error* error);
/// Nothing younger goes, whatever the urgency.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_youngest(kelvane_rules* rules, uint64_t seconds,
                                                          kelvane_error* error);
/// Patterns for paths relative to the directory: "*" and "?" match within a name, "**" any number of names,
/// "[...]" as in glob(7). Without an include pattern every file may go.
KELVANE_EXPORT kelvane_failure kelvane_rules_add_include(kelvane_rules* rules, const char* pattern,
                                                         kelvane_error* error);
/// Takes precedence over include patterns. A directory that matches is not entered.
KELVANE_EXPORT kelvane_failure kelvane_rules_add_exclude(kelvane_rules* rules, const char* pattern,
                                                         kelvane_error* error);
/// `unit` is a kelvane_unit.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_unit(kelvane_rules* rules, int unit, kelvane_error* error);
/// The name of a file directly in a unit that is deleted before anything else of the unit.
KELVANE_EXPORT kelvane_failure kelvane_rules_add_marker(kelvane_rules* rules, const char* name,
                                                        kelvane_error* error);
/// `kind` is a kelvane_lock. While another process holds this lock, nothing goes. The path is relative to the
/// directory or absolute.
KELVANE_EXPORT kelvane_failure kelvane_rules_add_lock(kelvane_rules* rules, int kind, const char* path,
                                                      kelvane_error* error);
/// While another process holds this lock, its unit stays. kelvane/cache_rules.h says what stands for the
/// unit's name in the path.
KELVANE_EXPORT kelvane_failure kelvane_rules_add_unit_lock(kelvane_rules* rules, int kind, const char* path,
                                                           kelvane_error* error);
/// Files that a process of the same user has open stay, and so do their units.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_open_files_stay(kelvane_rules* rules, bool stay,
                                                                 kelvane_error* error);
/// This number of the newest files or units stays.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_keep_newest(kelvane_rules* rules, uint64_t count,
                                                             kelvane_error* error);
/// At least this many of the newest bytes stay.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_keep_bytes(kelvane_rules* rules, uint64_t bytes,
                                                            kelvane_error* error);
/// Only what is in directories with a valid CACHEDIR.TAG may go, but for the tag itself.
KELVANE_EXPORT kelvane_failure kelvane_rules_set_tagged_only(kelvane_rules* rules, bool tagged,
                                                             kelvane_error* error);

// --- being a service ---
// A service has an ID, and the directories of its data: a request about a volume that holds none of them
// never reaches it. It is made, set up, started and stopped; while it runs, its settings cannot be changed.
// It checks in with the daemon by itself, and again after a restart of the daemon.

typedef struct kelvane_service kelvane_service;

/// What the daemon asks for. Valid during the call of the handler that it is passed to. Its functions may be
/// called on several threads at a time.
typedef struct kelvane_request kelvane_request;

KELVANE_EXPORT int kelvane_request_urgency(const kelvane_request* request);
/// The mount point of the volume.
KELVANE_EXPORT const char* kelvane_request_volume(const kelvane_request* request);
/// The bytes to be freed; 0 for a question.
KELVANE_EXPORT uint64_t kelvane_request_amount(const kelvane_request* request);
/// The service's directories that are on the volume now. Count and purge nothing outside of them.
KELVANE_EXPORT size_t kelvane_request_directory_count(const kelvane_request* request);
KELVANE_EXPORT const char* kelvane_request_directory(const kelvane_request* request, size_t index);
/// How long the handler has to return; an answer that comes later is not counted. Never negative; infinite
/// for daily maintenance.
KELVANE_EXPORT double kelvane_request_seconds_left(const kelvane_request* request);
/// True when the answer is no longer wanted: return soon, with what was freed until then. True for NULL.
KELVANE_EXPORT bool kelvane_request_cancelled(const kelvane_request* request);

/// The answer of `purgeable` when the figure is unknown; the daemon counts 0.
#define KELVANE_CANNOT_TELL UINT64_MAX

/// The functions of a service that is written by hand. The library calls it on threads of its own, with all
/// signals blocked. `purge` and `periodic` run one at a time; `purgeable` runs one at a time, possibly while
/// a purge runs. No exception and no longjmp may leave a function.
typedef struct kelvane_service_handler {
  size_t size;
  /// How many bytes a purge at the request's urgency could free now, or KELVANE_CANNOT_TELL. Changes nothing.
  uint64_t (*purgeable)(const kelvane_request* request, void* user_data);
  /// Frees the request's amount, or all there is if that is less, and returns the bytes that were really
  /// freed.
  uint64_t (*purge)(const kelvane_request* request, void* user_data);
  /// Daily maintenance; returns the bytes freed. May be NULL: the service is not asked.
  uint64_t (*periodic)(const kelvane_request* request, void* user_data);
} kelvane_service_handler;
#define KELVANE_SERVICE_HANDLER_INIT \
  { sizeof(kelvane_service_handler), NULL, NULL, NULL }

typedef enum kelvane_service_state {
  KELVANE_SERVICE_WAITING = 0,     // for the daemon, or for another process to give up the ID
  KELVANE_SERVICE_REGISTERED = 1,  // checked in
  KELVANE_SERVICE_REFUSED = 2,     // by the daemon; tried again after a restart of the daemon
  KELVANE_SERVICE_SERVING = 3,     // a declared service: the socket is open
} kelvane_service_state;

/// `reason` is for people, empty when nothing is wrong, and valid during the call.
typedef void (*kelvane_state_changed)(kelvane_service_state state, const char* reason, void* user_data);

/// A ready-made service of cache directories. Copies the rules.
KELVANE_EXPORT kelvane_service* kelvane_directory_service_new(const char* id, const kelvane_rules* rules,
                                                              kelvane_error* error);
/// A service written by hand. Copies the handler. `user_data` may be NULL; it is passed to each function and
/// must live until the service is stopped.
KELVANE_EXPORT kelvane_service* kelvane_service_new(const char* id, const kelvane_service_handler* handler,
                                                    void* user_data, kelvane_error* error);
/// Stops it first. Does nothing in a handler of the same service.
KELVANE_EXPORT void kelvane_service_free(kelvane_service* service);

/// An absolute path of a directory that exists when the service starts. At least one is required, unless the
/// service is asked about all volumes.
KELVANE_EXPORT kelvane_failure kelvane_service_add_directory(kelvane_service* service, const char* path,
                                                             kelvane_error* error);
/// For a service written by hand, instead of directories: its handler is called for every volume, and checks
/// with kelvane_volume_of whether its data is there.
KELVANE_EXPORT kelvane_failure kelvane_service_set_all_volumes(kelvane_service* service, bool all,
                                                               kelvane_error* error);
/// By default kelvane.sock in $RUNTIME_DIRECTORY, which is /run/kelvane unless set.
KELVANE_EXPORT kelvane_failure kelvane_service_set_daemon_socket(kelvane_service* service, const char* path,
                                                                 kelvane_error* error);
/// For a declared service: the name under which the service manager passes its socket.
KELVANE_EXPORT kelvane_failure kelvane_service_set_passed_socket(kelvane_service* service, const char* name,
                                                                 kelvane_error* error);
/// Called on a thread of the library whenever the state changes, one call at a time. `changed` may be NULL:
/// nothing is called.
KELVANE_EXPORT kelvane_failure kelvane_service_on_state(kelvane_service* service,
                                                        kelvane_state_changed changed, void* user_data,
                                                        kelvane_error* error);
/// Returns at once; does not wait for the daemon. Fails when a setting cannot be used.
KELVANE_EXPORT kelvane_failure kelvane_service_start(kelvane_service* service, kelvane_error* error);
/// Cancels running calls and waits for them: no function of the handler runs afterwards. It may then be
/// started again. Any thread, except in a handler of the same service, where it is refused. Stopping a
/// service that does not run does nothing.
KELVANE_EXPORT kelvane_failure kelvane_service_stop(kelvane_service* service, kelvane_error* error);

// --- a cache directory, for services written by hand ---

/// What counting found, for urgency 1 to 4 at index 0 to 3.
typedef struct kelvane_directory_count {
  size_t size;
  uint64_t bytes[4];
  uint64_t items[4];  // files or units
  bool complete;      // false: cancelled, out of time, or something could not be read
} kelvane_directory_count;
#define KELVANE_DIRECTORY_COUNT_INIT \
  { sizeof(kelvane_directory_count), {0, 0, 0, 0}, {0, 0, 0, 0}, false }

typedef enum kelvane_purge_end {
  KELVANE_PURGE_AMOUNT_FREED = 0,
  KELVANE_PURGE_NOTHING_LEFT = 1,  // that the rules let go
  KELVANE_PURGE_CANCELLED = 2,
  KELVANE_PURGE_TOO_LATE = 3,
  KELVANE_PURGE_FAILED = 4,
} kelvane_purge_end;

typedef struct kelvane_directory_purge {
  size_t size;
  kelvane_purge_end end;
  uint64_t freed;     // bytes
  uint64_t held;      // bytes that become free when the programs that have the deleted files open close them
  uint64_t items;     // files or units
  uint64_t failures;  // files that could not be read or deleted
  int error;          // errno of the first failure, or 0
} kelvane_directory_purge;
#define KELVANE_DIRECTORY_PURGE_INIT \
  { sizeof(kelvane_directory_purge), KELVANE_PURGE_NOTHING_LEFT, 0, 0, 0, 0, 0 }

/// Both open the directory at `path`, follow no link in it and enter no mount. `request` may be NULL: in a
/// handler it makes them return when the request is cancelled or its time has run out.
KELVANE_EXPORT kelvane_failure kelvane_count_directory(const char* path, const kelvane_rules* rules,
                                                       const kelvane_request* request,
                                                       kelvane_directory_count* count, kelvane_error* error);
/// Deletes the oldest first, as far as the rules allow at `urgency`, until `amount` bytes are free. Freeing
/// less than asked is not an error.
KELVANE_EXPORT kelvane_failure kelvane_purge_directory(const char* path, const kelvane_rules* rules,
                                                       int urgency, uint64_t amount,
                                                       const kelvane_request* request,
                                                       kelvane_directory_purge* purge, kelvane_error* error);

// --- asking the daemon ---
// Several threads may use one client. Each request blocks until it is answered: a question for up to eleven
// seconds, a purge for as long as the services need.

typedef struct kelvane_client kelvane_client;

/// Does not connect yet. `daemon_socket` may be NULL: kelvane.sock in $RUNTIME_DIRECTORY, which is
/// /run/kelvane unless set.
KELVANE_EXPORT kelvane_client* kelvane_client_new(const char* daemon_socket, kelvane_error* error);
/// Not to be called while another thread is in a function of this client.
KELVANE_EXPORT void kelvane_client_free(kelvane_client* client);

typedef struct kelvane_purge_request {
  size_t size;
  const char* volume;     // a mount point, as kelvane_volume_of says
  uint64_t amount;        // bytes to be freed
  int urgency_limit;      // the highest urgency: 1 to 4; 0 stands for 3
  uint64_t pass_seconds;  // the wait in each of the passes, at most 300; 0 stands for 2, 4, 6 and 8
} kelvane_purge_request;
#define KELVANE_PURGE_REQUEST_INIT \
  { sizeof(kelvane_purge_request), NULL, 0, 0, 0 }

typedef struct kelvane_purge_result kelvane_purge_result;

/// Freeing less than asked is not an error.
KELVANE_EXPORT kelvane_purge_result* kelvane_client_purge(kelvane_client* client,
                                                          const kelvane_purge_request* request,
                                                          kelvane_error* error);

KELVANE_EXPORT void kelvane_purge_result_free(kelvane_purge_result* result);
/// What counts for the request.
KELVANE_EXPORT uint64_t kelvane_purge_result_freed(const kelvane_purge_result* result);
/// The sum of what the services reported.
KELVANE_EXPORT uint64_t kelvane_purge_result_reported(const kelvane_purge_result* result);
/// The volume's free bytes for ordinary users.
KELVANE_EXPORT uint64_t kelvane_purge_result_free_before(const kelvane_purge_result* result);
KELVANE_EXPORT uint64_t kelvane_purge_result_free_after(const kelvane_purge_result* result);
KELVANE_EXPORT double kelvane_purge_result_seconds(const kelvane_purge_result* result);
KELVANE_EXPORT bool kelvane_purge_result_cancelled(const kelvane_purge_result* result);
/// The passes in the order in which they ran, and the services that answered in each.
KELVANE_EXPORT size_t kelvane_purge_result_pass_count(const kelvane_purge_result* result);
KELVANE_EXPORT int kelvane_purge_result_urgency(const kelvane_purge_result* result, size_t pass);
KELVANE_EXPORT size_t kelvane_purge_result_service_count(const kelvane_purge_result* result, size_t pass);
KELVANE_EXPORT const char* kelvane_purge_result_service(const kelvane_purge_result* result, size_t pass,
                                                        size_t index);
/// The bytes of its last answer in the pass.
KELVANE_EXPORT uint64_t kelvane_purge_result_service_freed(const kelvane_purge_result* result, size_t pass,
                                                           size_t index);

typedef struct kelvane_purgeable kelvane_purgeable;

/// What the services could free on the volume at that urgency.
KELVANE_EXPORT kelvane_purgeable* kelvane_client_purgeable(kelvane_client* client, const char* volume,
                                                           int urgency, kelvane_error* error);
KELVANE_EXPORT void kelvane_purgeable_free(kelvane_purgeable* purgeable);
KELVANE_EXPORT uint64_t kelvane_purgeable_total(const kelvane_purgeable* purgeable);
KELVANE_EXPORT size_t kelvane_purgeable_service_count(const kelvane_purgeable* purgeable);
KELVANE_EXPORT const char* kelvane_purgeable_service(const kelvane_purgeable* purgeable, size_t index);
KELVANE_EXPORT uint64_t kelvane_purgeable_service_bytes(const kelvane_purgeable* purgeable, size_t index);

// --- the daemon's key-value store ---

typedef struct kelvane_value kelvane_value;

typedef enum kelvane_value_kind {
  KELVANE_VALUE_NOTHING = 0,  // the key is unknown
  KELVANE_VALUE_BOOLEAN = 1,
  KELVANE_VALUE_SIGNED = 2,
  KELVANE_VALUE_UNSIGNED = 3,
  KELVANE_VALUE_REAL = 4,
  KELVANE_VALUE_TEXT = 5,
  KELVANE_VALUE_OTHER = 6,  // data, a date, an array or a dictionary: kelvane_value_description shows it
} kelvane_value_kind;

KELVANE_EXPORT kelvane_value* kelvane_client_state(kelvane_client* client, const char* key,
                                                   kelvane_error* error);
/// The value is on disk when these return.
KELVANE_EXPORT kelvane_failure kelvane_client_set_state_boolean(kelvane_client* client, const char* key,
                                                                bool value, kelvane_error* error);
KELVANE_EXPORT kelvane_failure kelvane_client_set_state_integer(kelvane_client* client, const char* key,
                                                                int64_t value, kelvane_error* error);
KELVANE_EXPORT kelvane_failure kelvane_client_set_state_text(kelvane_client* client, const char* key,
                                                             const char* value, kelvane_error* error);
KELVANE_EXPORT kelvane_failure kelvane_client_remove_state(kelvane_client* client, const char* key,
                                                           kelvane_error* error);

KELVANE_EXPORT void kelvane_value_free(kelvane_value* value);
KELVANE_EXPORT kelvane_value_kind kelvane_value_kind_of(const kelvane_value* value);
/// Numbers of any kind, converted by C's rules; 0 for anything else.
KELVANE_EXPORT bool kelvane_value_boolean(const kelvane_value* value);
KELVANE_EXPORT int64_t kelvane_value_signed(const kelvane_value* value);
KELVANE_EXPORT uint64_t kelvane_value_unsigned(const kelvane_value* value);
KELVANE_EXPORT double kelvane_value_real(const kelvane_value* value);
/// NULL unless the value is text.
KELVANE_EXPORT const char* kelvane_value_text(const kelvane_value* value);
/// For people.
KELVANE_EXPORT const char* kelvane_value_description(const kelvane_value* value);

// NOLINTEND(modernize-use-using)
#ifdef __cplusplus
}
#endif
