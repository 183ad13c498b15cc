#include "fuzz/target.h"

#include <cstdio>
#include <cstdlib>

#ifdef KELVANE_WITH_LIBFUZZER
#include <sanitizer/allocator_interface.h>
#else
#include <malloc.h>
#endif

namespace kelvane::fuzz {

void require(bool holds, std::string_view property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %.*s\n", static_cast<int>(property.size()), property.data());
  std::abort();
}

std::size_t allocatedBytes() {
#ifdef KELVANE_WITH_LIBFUZZER
  return __sanitizer_get_current_allocated_bytes();
#else
  return ::mallinfo2().uordblks;
#endif
}

}  // namespace kelvane::fuzz

#ifdef KELVANE_WITH_LIBFUZZER
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kelvane::fuzz::examine({data, size});
  return 0;
}
#endif
