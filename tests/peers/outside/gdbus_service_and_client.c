/* A service and a client of the daemon in one program, made with GDBus and with what gdbus-codegen made of
   the installed descriptions:

     gdbus_service_and_client SOCKET VOLUME

   It checks in, asks what could be freed, has that much purged, and says "all of it" when both answers are
   its own. */

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <glib-unix.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client.h"
#include "service.h"

enum { could_free = 4096, freed = 1000 };

static GMainLoop* loop;
static const char* volume;
static int purges;

static void must(gboolean well, const char* what, GError* error) {
  if (well) return;
  g_printerr("%s: %s\n", what, error != NULL ? error->message : "not as expected");
  _exit(1);
}

static GVariant* amount_of(guint64 bytes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
  g_variant_builder_open(&builder, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&builder, "{sv}", "KELVANE_AMOUNT", g_variant_new_uint64(bytes));
  g_variant_builder_close(&builder);
  return g_variant_builder_end(&builder);
}

/* --- the service --- */

static gboolean ping(KvKelvaneServiceProtocol* service, GDBusMethodInvocation* call) {
  kv_kelvane_service_protocol_complete_service_ping(service, call);
  return TRUE;
}

static gboolean purgeable(KvKelvaneServiceProtocol* service, GDBusMethodInvocation* call, gint urgency,
                          GVariant* info) {
  (void)urgency;
  (void)info;
  kv_kelvane_service_protocol_complete_service_purgeable(service, call, amount_of(could_free));
  return TRUE;
}

static gboolean purge(KvKelvaneServiceProtocol* service, GDBusMethodInvocation* call, gint urgency,
                      GVariant* info) {
  const char* where = NULL;
  (void)urgency;
  must(g_variant_lookup(info, "KELVANE_VOLUME", "&s", &where) && strcmp(where, volume) == 0, "the volume",
       NULL);
  kv_kelvane_service_protocol_complete_service_purge(service, call, amount_of(purges++ == 0 ? freed : 0));
  return TRUE;
}

static void called(GObject* source, GAsyncResult* result, gpointer data) {
  GDBusConnection* connection = g_dbus_connection_new_finish(result, NULL);
  KvKelvaneServiceProtocol* service = data;
  (void)source;
  if (connection == NULL) return; /* the daemon has hung up */
  must(g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(service), connection,
                                        "/com/orvel/kelvane/service", NULL),
       "export", NULL);
  g_dbus_connection_start_message_processing(connection);
}

static gboolean endpoint_readable(gint endpoint, GIOCondition condition, gpointer service) {
  char byte;
  struct iovec data = {&byte, 1};
  union {
    struct cmsghdr header;
    char space[CMSG_SPACE(sizeof(int))];
  } control;
  struct msghdr message = {
      .msg_iov = &data, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = sizeof control};
  GSocket* socket;
  char* guid;
  int descriptor;
  (void)condition;
  if (recvmsg(endpoint, &message, MSG_CMSG_CLOEXEC) != 1) return G_SOURCE_REMOVE;
  memcpy(&descriptor, CMSG_DATA(&control.header), sizeof descriptor);
  socket = g_socket_new_from_fd(descriptor, NULL);
  guid = g_dbus_generate_guid();
  g_dbus_connection_new(
      G_IO_STREAM(g_socket_connection_factory_create_connection(socket)), guid,
      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER | G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING, NULL,
      NULL, called, service);
  g_free(guid);
  g_object_unref(socket);
  return G_SOURCE_CONTINUE;
}

/* --- the client --- */

static GVariant* request_for(guint64 bytes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&builder, "{sv}", "KELVANE_VOLUME", g_variant_new_string(volume));
  if (bytes > 0) g_variant_builder_add(&builder, "{sv}", "KELVANE_AMOUNT", g_variant_new_uint64(bytes));
  return g_variant_builder_end(&builder);
}

static guint64 number_in(GVariant* answer, const char* key) {
  GVariant* dictionary = g_variant_get_child_value(answer, 0);
  GVariant* value = g_variant_lookup_value(dictionary, key, NULL);
  must(value != NULL, key, NULL);
  return g_variant_is_of_type(value, G_VARIANT_TYPE_INT64) ? (guint64)g_variant_get_int64(value)
                                                           : g_variant_get_uint64(value);
}

static void purged(GObject* daemon, GAsyncResult* result, gpointer data) {
  GError* error = NULL;
  GVariant* answer = NULL;
  (void)data;
  must(kv_kelvane_client_protocol_call_client_purge_finish(KV_KELVANE_CLIENT_PROTOCOL(daemon), &answer,
                                                           result, &error),
       "purge", error);
  must(number_in(answer, "KELVANE_AMOUNT") == freed, "the amount purged", NULL);
  g_print("all of it\n");
  g_main_loop_quit(loop);
}

static void answered(GObject* daemon, GAsyncResult* result, gpointer data) {
  GError* error = NULL;
  GVariant* answer = NULL;
  (void)data;
  must(kv_kelvane_client_protocol_call_client_purgeable_space_finish(KV_KELVANE_CLIENT_PROTOCOL(daemon),
                                                                     &answer, result, &error),
       "question", error);
  must(number_in(answer, "com.example.codegen") == could_free, "the amount that could be freed", NULL);
  kv_kelvane_client_protocol_call_client_purge(KV_KELVANE_CLIENT_PROTOCOL(daemon), request_for(freed),
                                               G_DBUS_CALL_FLAGS_NONE, G_MAXINT, NULL, purged, NULL);
}

static void checked_in(GObject* daemon, GAsyncResult* result, gpointer data) {
  GError* error = NULL;
  GVariant* answer = NULL;
  (void)data;
  must(kv_kelvane_client_protocol_call_client_checkin_finish(KV_KELVANE_CLIENT_PROTOCOL(daemon), &answer,
                                                             NULL, result, &error),
       "check-in", error);
  must(g_variant_n_children(answer) == 1, "the check-in's answer", NULL);
  kv_kelvane_client_protocol_call_client_purgeable_space(KV_KELVANE_CLIENT_PROTOCOL(daemon), request_for(0),
                                                         G_DBUS_CALL_FLAGS_NONE, G_MAXINT, NULL, answered,
                                                         NULL);
}

int main(int argc, char** argv) {
  GError* error = NULL;
  GUnixFDList* descriptors = g_unix_fd_list_new();
  KvKelvaneServiceProtocol* service = kv_kelvane_service_protocol_skeleton_new();
  KvKelvaneClientProtocol* daemon;
  GDBusConnection* connection;
  GVariantBuilder info;
  char* address;
  int pair[2];
  int handle;
  if (argc != 3) return 2;
  volume = argv[2];
  loop = g_main_loop_new(NULL, FALSE);
  address = g_strconcat("unix:path=", argv[1], NULL);
  connection = g_dbus_connection_new_for_address_sync(address, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                                                      NULL, NULL, &error);
  must(connection != NULL, address, error);
  daemon = kv_kelvane_client_protocol_proxy_new_sync(connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                                                     NULL, "/com/orvel/kelvane", NULL, &error);
  must(daemon != NULL, "proxy", error);
  g_signal_connect(service, "handle-service-ping", G_CALLBACK(ping), NULL);
  g_signal_connect(service, "handle-service-purgeable", G_CALLBACK(purgeable), NULL);
  g_signal_connect(service, "handle-service-purge", G_CALLBACK(purge), NULL);
  must(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) == 0, "endpoint", NULL);
  g_unix_fd_add(pair[0], G_IO_IN | G_IO_HUP, endpoint_readable, service);
  handle = g_unix_fd_list_append(descriptors, pair[1], &error);
  close(pair[1]);
  g_variant_builder_init(&info, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&info, "{sv}", "PURGE", g_variant_new_boolean(TRUE));
  kv_kelvane_client_protocol_call_client_checkin(daemon, "com.example.codegen", g_variant_new_handle(handle),
                                                 g_variant_builder_end(&info), G_DBUS_CALL_FLAGS_NONE,
                                                 G_MAXINT, descriptors, NULL, checked_in, NULL);
  g_main_loop_run(loop);
  return 0;
}
