// Serves an object on the socket that was handed over, until it is ended.

#include "platform/dispatch/queue.h"
#include "support/listener.h"
#include "tests/support/fake_client_object.h"

int main() {
  const auto listener = kelvane::KelvaneListener::daemonListenerWithExportedObject(
      std::make_shared<kelvane::tests::FakeClientObject>());
  if (!listener->resume()) return 1;
  kelvane::dispatch_main();
}
