#include "support/volume_probe.h"

#include "support/log.h"

namespace kelvane {

void noteNoAnswer(const char* speaker, const std::string& path) {
  KVLog(3, "%s %@ does not answer, going on without it", speaker, path);
}

void noteLateAnswer(const char* speaker, const std::string& path) {
  KVLog(3, "%s %@ answers again", speaker, path);
}

}  // namespace kelvane
