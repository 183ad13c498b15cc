#include "operations/timebase.h"

namespace kelvane {

double gTimebaseConversion = 0.0;

}  // namespace kelvane
