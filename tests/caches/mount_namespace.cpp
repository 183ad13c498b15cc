#include "tests/support/private_mounts.h"

namespace kelvane::caches::tests {
namespace {

const bool private_mounts = kelvane::tests::enterPrivateMounts();

}  // namespace
}  // namespace kelvane::caches::tests
