#include "tests/wire/system_call_faults.h"

#include <dlfcn.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <atomic>
#include <cerrno>

namespace kelvane::wire {

namespace {

enum class Function { none, recvmsg, sendmsg, getrandom };

std::atomic<Function> faulty = Function::none;
std::atomic<int> error_to_give = 0;
std::atomic<int> remaining = 0;
std::atomic<int> failures = 0;

bool fails(Function function) {
  if (faulty.load() != function || remaining.load() == 0) return false;
  --remaining;
  ++failures;
  errno = error_to_give;
  return true;
}

template <class Signature>
Signature* next(const char* name) {
  return reinterpret_cast<Signature*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

SystemCallFault::SystemCallFault(std::string_view function, int error, int times) {
  error_to_give = error;
  remaining = times;
  failures = 0;
  faulty = function == "recvmsg"   ? Function::recvmsg
           : function == "sendmsg" ? Function::sendmsg
                                   : Function::getrandom;
}

SystemCallFault::~SystemCallFault() { faulty = Function::none; }

int SystemCallFault::failed() { return failures; }

}  // namespace kelvane::wire

using kelvane::wire::error_to_give;
using kelvane::wire::fails;
using kelvane::wire::Function;
using kelvane::wire::next;

extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
  if (fails(Function::recvmsg)) return -1;
  static auto* const real = next<decltype(recvmsg)>("recvmsg");
  return real(socket, message, flags);
}

extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  if (fails(Function::sendmsg)) return -1;
  static auto* const real = next<decltype(sendmsg)>("sendmsg");
  return real(socket, message, flags);
}

extern "C" ssize_t getrandom(void* buffer, size_t size, unsigned int flags) {
  static auto* const real = next<decltype(getrandom)>("getrandom");
  if (!fails(Function::getrandom)) return real(buffer, size, flags);
  return error_to_give == 0 ? real(buffer, 1, flags) : -1;
}
