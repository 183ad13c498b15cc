#include "operations/purge_pass.h"

#include <fmt/format.h>

#include "common/keys.h"

namespace kelvane {

std::string PurgePass::key() const { return fmt::format("KELVANE_URGENCY_{}_OPERATION_INFO", urgency_); }

Dictionary PurgePass::operationInfo() const {
  Dictionary whole = info_;
  if (!reports_.empty()) whole.set(KELVANE_REPORTING_SERVICES, reports_);
  return whole;
}

}  // namespace kelvane
