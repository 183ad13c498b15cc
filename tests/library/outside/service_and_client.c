/* A service and a client in C, with a real daemon: service_and_client DAEMON-SOCKET VOLUME. The volume is the
 * program's own; everything in it may go. */

#include <kelvane/kelvane.h>

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define MEBIBYTE (UINT64_C(1) << 20)

static void expect(bool holds, const char* what) {
  printf("%s: %s\n", holds ? "ok" : "FAILED", what);
  fflush(stdout);
  if (!holds) exit(1);
}

static void expect_done(kelvane_failure failure, const kelvane_error* error, const char* what) {
  if (failure != KELVANE_OK) printf("%s\n", error->message);
  expect(failure == KELVANE_OK, what);
}

static void expect_refused(kelvane_failure failure, kelvane_error* error, const char* message) {
  if (strcmp(error->message, message) != 0) printf("the message is: %s\n", error->message);
  expect(failure == KELVANE_BAD_REQUEST && error->failure == failure && strcmp(error->message, message) == 0,
         message);
  error->failure = KELVANE_OK;
  error->message[0] = '\0';
}

/* --- what is refused --- */

static uint64_t nothing(const kelvane_request* request, void* user_data) {
  (void)request;
  (void)user_data;
  return 0;
}

static void refuses_invalid_rules(kelvane_error* error) {
  kelvane_rules* rules = kelvane_rules_new(error);
  expect(rules != NULL, "rules are made");
  expect_refused(kelvane_rules_set_age(NULL, 1, 1, error), error, "rules is NULL");
  expect_refused(kelvane_rules_set_age(rules, 5, 1, error), error, "invalid urgency 5: expected 1 to 4");
  expect_refused(kelvane_rules_set_age(rules, 0, 1, error), error, "invalid urgency 0: expected 1 to 4");
  expect_refused(kelvane_rules_add_include(rules, NULL, error), error, "pattern is NULL");
  expect_refused(kelvane_rules_add_exclude(rules, "", error), error, "pattern is empty");
  expect_refused(kelvane_rules_add_marker(rules, "a/b", error), error,
                 "invalid marker \"a/b\": expected a name without \"/\"");
  expect_refused(kelvane_rules_add_lock(rules, 7, "lock", error), error,
                 "invalid kind of lock 7: expected a kelvane_lock");
  expect_refused(kelvane_rules_set_unit(rules, 2, error), error,
                 "invalid unit 2: expected a kelvane_unit");
  kelvane_directory_count count = KELVANE_DIRECTORY_COUNT_INIT;
  expect_refused(kelvane_count_directory(NULL, rules, NULL, &count, error), error, "path is NULL");
  expect_refused(kelvane_count_directory("/", rules, NULL, NULL, error), error, "count is NULL");
  count.size = 8;
  expect(kelvane_count_directory("/", rules, NULL, &count, error) == KELVANE_BAD_REQUEST,
         "a structure without its size is refused");
  kelvane_directory_purge purge = KELVANE_DIRECTORY_PURGE_INIT;
  expect_refused(kelvane_purge_directory("/", rules, 9, 1, NULL, &purge, error), error,
                 "invalid urgency 9: expected 1 to 4");
  kelvane_rules_free(rules);
}

static void refuses_invalid_services(kelvane_error* error) {
  kelvane_service_handler handler = KELVANE_SERVICE_HANDLER_INIT;
  expect(kelvane_service_new("com.example.c", NULL, NULL, error) == NULL, "no handler, no service");
  expect_refused(error->failure, error, "handler is NULL");
  expect(kelvane_service_new("com.example.c", &handler, NULL, error) == NULL, "no purge, no service");
  expect_refused(error->failure, error, "handler->purgeable is NULL");
  handler.purgeable = nothing;
  handler.purge = nothing;
  expect(kelvane_service_new("", &handler, NULL, error) == NULL, "no ID, no service");
  expect_refused(error->failure, error, "id is empty");
  expect(kelvane_service_new("com.\xff", &handler, NULL, error) == NULL, "no UTF-8, no service");
  expect_refused(error->failure, error, "invalid id \"com.?\": not UTF-8");
  expect(kelvane_directory_service_new("com.example.c", NULL, error) == NULL, "no rules, no service");
  expect_refused(error->failure, error, "rules is NULL");
  kelvane_service* service = kelvane_service_new("com.example.c", &handler, NULL, error);
  expect(service != NULL, "a service is made");
  expect_refused(kelvane_service_add_directory(service, "here", error), error,
                 "invalid directory \"here\": expected an absolute path");
  expect(kelvane_service_start(service, error) == KELVANE_BAD_REQUEST && error->message[0] != '\0',
         "a service without directories does not start, with a reason");
  expect(kelvane_service_stop(service, NULL) == KELVANE_OK, "to stop what does not run does nothing");
  expect(kelvane_service_start(NULL, NULL) == KELVANE_BAD_REQUEST, "an error may be left out");
  kelvane_service_free(service);
  kelvane_service_free(NULL);
}

static void reads_nothing_from_null(void) {
  expect(kelvane_request_urgency(NULL) == 0 && kelvane_request_amount(NULL) == 0 &&
             kelvane_request_directory_count(NULL) == 0 && kelvane_request_seconds_left(NULL) <= 0 &&
             kelvane_request_cancelled(NULL) && *kelvane_request_volume(NULL) == '\0' &&
             *kelvane_request_directory(NULL, 0) == '\0',
         "no request is a cancelled one");
  expect(kelvane_purge_result_freed(NULL) == 0 && kelvane_purge_result_pass_count(NULL) == 0 &&
             *kelvane_purge_result_service(NULL, 0, 0) == '\0' && kelvane_purgeable_total(NULL) == 0 &&
             *kelvane_purgeable_service(NULL, 3) == '\0' &&
             kelvane_value_kind_of(NULL) == KELVANE_VALUE_NOTHING && kelvane_value_text(NULL) == NULL,
         "no result is an empty one");
  kelvane_rules_free(NULL);
  kelvane_client_free(NULL);
  kelvane_purge_result_free(NULL);
  kelvane_purgeable_free(NULL);
  kelvane_value_free(NULL);
}

static void cuts_long_messages(void) {
  struct {
    kelvane_error error;
    char after[4];
  } cut = {KELVANE_ERROR_INIT, "abc"};
  char path[4096];
  memset(path, 'x', sizeof path - 1);
  path[sizeof path - 1] = '\0';
  path[0] = '/';
  char volume[4096];
  expect(kelvane_volume_of(path, volume, sizeof volume, &cut.error) == KELVANE_BAD_REQUEST &&
             strlen(cut.error.message) < sizeof cut.error.message && strcmp(cut.after, "abc") == 0,
         "a long message is cut");
  cut.error.message[0] = '\0';
  cut.error.size = sizeof(size_t);
  expect(kelvane_volume_of(NULL, volume, sizeof volume, &cut.error) == KELVANE_BAD_REQUEST &&
             cut.error.message[0] == '\0',
         "an error of another size is left alone");
}

/* --- a service --- */

struct cache {
  char directory[512];
  kelvane_rules* rules;
  kelvane_service* service;
  pthread_mutex_t mutex; /* guards what follows */
  pthread_cond_t changed;
  kelvane_service_state state;
  kelvane_failure stopped_by_itself;
  bool asked_right;
};

static void look_at(struct cache* cache, const kelvane_request* request, const char* volume) {
  const bool right = strcmp(kelvane_request_volume(request), volume) == 0 &&
                     kelvane_request_directory_count(request) == 1 &&
                     strcmp(kelvane_request_directory(request, 0), cache->directory) == 0 &&
                     *kelvane_request_directory(request, 1) == '\0' && kelvane_request_urgency(request) >= 1 &&
                     kelvane_request_seconds_left(request) > 0 && !kelvane_request_cancelled(request);
  pthread_mutex_lock(&cache->mutex);
  cache->asked_right = cache->asked_right && right;
  pthread_mutex_unlock(&cache->mutex);
}

static const char* the_volume;

static uint64_t cache_purgeable(const kelvane_request* request, void* user_data) {
  struct cache* cache = user_data;
  look_at(cache, request, the_volume);
  kelvane_directory_count count = KELVANE_DIRECTORY_COUNT_INIT;
  if (kelvane_count_directory(cache->directory, cache->rules, request, &count, NULL) != KELVANE_OK)
    return KELVANE_CANNOT_TELL;
  return count.bytes[kelvane_request_urgency(request) - 1];
}

static uint64_t cache_purge(const kelvane_request* request, void* user_data) {
  struct cache* cache = user_data;
  look_at(cache, request, the_volume);
  const kelvane_failure stopped = kelvane_service_stop(cache->service, NULL);
  kelvane_service_free(cache->service); /* does nothing here */
  pthread_mutex_lock(&cache->mutex);
  cache->stopped_by_itself = stopped;
  pthread_mutex_unlock(&cache->mutex);
  kelvane_directory_purge purge = KELVANE_DIRECTORY_PURGE_INIT;
  kelvane_purge_directory(cache->directory, cache->rules, kelvane_request_urgency(request),
                          kelvane_request_amount(request), request, &purge, NULL);
  return purge.freed;
}

static void state_changed(kelvane_service_state state, const char* reason, void* user_data) {
  struct cache* cache = user_data;
  printf("state %d %s\n", (int)state, reason);
  pthread_mutex_lock(&cache->mutex);
  cache->state = state;
  pthread_cond_signal(&cache->changed);
  pthread_mutex_unlock(&cache->mutex);
}

static void fill(const char* directory, int files) {
  static char contents[MEBIBYTE];
  mkdir(directory, 0755);
  for (int i = 0; i < files; ++i) {
    char path[600];
    snprintf(path, sizeof path, "%s/%d", directory, i);
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    expect(file >= 0 && write(file, contents, sizeof contents) == (ssize_t)sizeof contents, "a file is made");
    close(file);
  }
}

static kelvane_rules* everything_when_urgent(void) {
  kelvane_rules* rules = kelvane_rules_new(NULL);
  kelvane_rules_set_youngest(rules, 0, NULL);
  kelvane_rules_set_age(rules, 3, 24 * 3600, NULL);
  kelvane_rules_set_age(rules, 4, 0, NULL);
  return rules;
}

static void await_registration(struct cache* cache) {
  pthread_mutex_lock(&cache->mutex);
  while (cache->state != KELVANE_SERVICE_REGISTERED) pthread_cond_wait(&cache->changed, &cache->mutex);
  pthread_mutex_unlock(&cache->mutex);
}

static kelvane_service* started(struct cache* cache, kelvane_service* service, const char* socket) {
  kelvane_error error = KELVANE_ERROR_INIT;
  expect_done(kelvane_service_add_directory(service, cache->directory, &error), &error, "a directory is added");
  expect_done(kelvane_service_set_daemon_socket(service, socket, &error), &error, "the daemon is set");
  expect_done(kelvane_service_on_state(service, state_changed, cache, &error), &error, "the state is heard of");
  cache->service = service;
  cache->state = KELVANE_SERVICE_WAITING;
  expect_done(kelvane_service_start(service, &error), &error, "it starts");
  expect(kelvane_service_add_directory(service, "/tmp", &error) == KELVANE_BAD_REQUEST,
         "what runs is not changed");
  await_registration(cache);
  return service;
}

/* --- a client --- */

static uint64_t purged(kelvane_client* client, const char* volume, uint64_t amount, int urgency) {
  kelvane_error error = KELVANE_ERROR_INIT;
  kelvane_purge_request request = KELVANE_PURGE_REQUEST_INIT;
  request.volume = volume;
  request.amount = amount;
  request.urgency_limit = urgency;
  kelvane_purge_result* result = kelvane_client_purge(client, &request, &error);
  if (result == NULL) printf("%s\n", error.message);
  expect(result != NULL, "a purge is answered");
  const uint64_t freed = kelvane_purge_result_freed(result);
  const size_t last = kelvane_purge_result_pass_count(result) - 1;
  expect(kelvane_purge_result_urgency(result, last) <= urgency && kelvane_purge_result_urgency(result, 99) == 0,
         "its passes end at the limit");
  if (freed > 0) {
    expect(strcmp(kelvane_purge_result_service(result, last, 0), "com.example.c") == 0 &&
               kelvane_purge_result_service_freed(result, last, 0) == freed &&
               kelvane_purge_result_service_count(result, last) == 1 &&
               kelvane_purge_result_free_after(result) - kelvane_purge_result_free_before(result) == freed,
           "it names who freed what");
  }
  kelvane_purge_result_free(result);
  return freed;
}

static uint64_t purgeable(kelvane_client* client, const char* volume, int urgency) {
  kelvane_error error = KELVANE_ERROR_INIT;
  kelvane_purgeable* found = kelvane_client_purgeable(client, volume, urgency, &error);
  if (found == NULL) printf("%s\n", error.message);
  expect(found != NULL, "a question is answered");
  uint64_t bytes = 0;
  for (size_t i = 0; i < kelvane_purgeable_service_count(found); ++i) {
    if (strcmp(kelvane_purgeable_service(found, i), "com.example.c") == 0)
      bytes = kelvane_purgeable_service_bytes(found, i);
  }
  expect(bytes == kelvane_purgeable_total(found), "the total is that of the only service");
  kelvane_purgeable_free(found);
  return bytes;
}

static void asks_for_a_purge(kelvane_client* client, const char* volume) {
  expect(purged(client, volume, MEBIBYTE, 3) == 0, "at urgency 3 nothing is old enough");
  expect(purged(client, volume, 4 * MEBIBYTE, 4) == 4 * MEBIBYTE, "at urgency 4 as much goes as was asked for");
}

static void keeps_state(kelvane_client* client) {
  kelvane_error error = KELVANE_ERROR_INIT;
  expect_done(kelvane_client_set_state_text(client, "key", "v\xc3\xa4lue", &error), &error, "text is kept");
  kelvane_value* value = kelvane_client_state(client, "key", &error);
  expect(kelvane_value_kind_of(value) == KELVANE_VALUE_TEXT && strcmp(kelvane_value_text(value), "v\xc3\xa4lue") == 0,
         "and read");
  kelvane_value_free(value);
  expect_done(kelvane_client_set_state_integer(client, "key", -5, &error), &error, "so is a number");
  value = kelvane_client_state(client, "key", &error);
  expect(kelvane_value_kind_of(value) == KELVANE_VALUE_SIGNED && kelvane_value_signed(value) == -5 &&
             kelvane_value_text(value) == NULL && strcmp(kelvane_value_description(value), "-5") == 0,
         "and read");
  kelvane_value_free(value);
  expect_done(kelvane_client_set_state_boolean(client, "key", true, &error), &error, "so is a boolean");
  value = kelvane_client_state(client, "key", &error);
  expect(kelvane_value_kind_of(value) == KELVANE_VALUE_BOOLEAN && kelvane_value_boolean(value), "and read");
  kelvane_value_free(value);
  expect_done(kelvane_client_remove_state(client, "key", &error), &error, "a key is removed");
  value = kelvane_client_state(client, "key", &error);
  expect(value != NULL && kelvane_value_kind_of(value) == KELVANE_VALUE_NOTHING, "and not there");
  kelvane_value_free(value);
  expect_refused(kelvane_client_set_state_text(client, "key", "\xff", &error), &error, "invalid value \"?\": not UTF-8");
}

static void refuses_invalid_requests(kelvane_client* client, kelvane_error* error) {
  kelvane_purge_request request = KELVANE_PURGE_REQUEST_INIT;
  expect(kelvane_client_purge(client, &request, error) == NULL, "a purge has a volume");
  expect_refused(error->failure, error, "volume is NULL");
  request.volume = "/";
  request.urgency_limit = 5;
  expect(kelvane_client_purge(client, &request, error) == NULL, "there are four urgencies");
  expect_refused(error->failure, error, "invalid urgency_limit 5: expected 1 to 4, or 0 for 3");
  request.urgency_limit = 0;
  request.pass_seconds = 301;
  expect(kelvane_client_purge(client, &request, error) == NULL, "a pass has an end");
  expect_refused(error->failure, error, "invalid pass_seconds 301: expected at most 300");
  expect(kelvane_client_purge(NULL, &request, error) == NULL, "a purge has a client");
  expect_refused(error->failure, error, "client is NULL");
  kelvane_client* nobody = kelvane_client_new("/nowhere/kelvane.sock", error);
  expect(kelvane_client_state(nobody, "key", error) == NULL && error->failure == KELVANE_NO_DAEMON,
         "nobody listens there");
  kelvane_client_free(nobody);
}

int main(int count, char** arguments) {
  expect(count == 3, "there are a socket and a volume");
  const char* socket = arguments[1];
  const char* volume = the_volume = arguments[2];
  kelvane_error error = KELVANE_ERROR_INIT;
  expect(strchr(kelvane_version(), '.') != NULL, "there is a version");
  refuses_invalid_rules(&error);
  refuses_invalid_services(&error);
  reads_nothing_from_null();
  cuts_long_messages();

  static struct cache cache = {.mutex = PTHREAD_MUTEX_INITIALIZER,
                               .changed = PTHREAD_COND_INITIALIZER,
                               .asked_right = true};
  snprintf(cache.directory, sizeof cache.directory, "%s/cache", volume);
  fill(cache.directory, 16);
  char found[4096];
  expect_done(kelvane_volume_of(cache.directory, found, sizeof found, &error), &error, "the volume is found");
  expect(strcmp(found, volume) == 0, "and is right");
  expect(kelvane_volume_of(cache.directory, found, 2, &error) == KELVANE_BAD_REQUEST, "a small buffer is refused");

  cache.rules = everything_when_urgent();
  kelvane_client* client = kelvane_client_new(socket, &error);
  refuses_invalid_requests(client, &error);
  const kelvane_service_handler handler = {sizeof handler, cache_purgeable, cache_purge, NULL};
  kelvane_service* service =
      started(&cache, kelvane_service_new("com.example.c", &handler, &cache, &error), socket);
  expect(purgeable(client, volume, 4) == 16 * MEBIBYTE, "at urgency 4 all could go");
  asks_for_a_purge(client, volume);
  keeps_state(client);
  expect_done(kelvane_service_stop(service, &error), &error, "it stops");
  expect(cache.asked_right, "each request was what it should be");
  expect(cache.stopped_by_itself == KELVANE_BAD_REQUEST, "a handler cannot stop its service");
  expect(purged(client, volume, MEBIBYTE, 4) == 0, "a stopped service frees nothing");
  kelvane_service_free(service);

  fill(cache.directory, 16);
  service = started(&cache, kelvane_directory_service_new("com.example.c", cache.rules, &error), socket);
  kelvane_rules_free(cache.rules); /* the service has a copy */
  asks_for_a_purge(client, volume);
  kelvane_service_free(service);
  kelvane_client_free(client);
  puts("all of it");
  return 0;
}
