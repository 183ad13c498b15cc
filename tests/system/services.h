#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/daemon.h"
#include "tests/system/process.h"

namespace kelvane::tests {

/// A service program on that folder, checked in with the daemon.
inline std::unique_ptr<Process> startService(const Daemon& daemon, const std::string& behaviour,
                                             const std::string& ID, const std::string& folder) {
  auto service = std::make_unique<Process>(
      std::vector<std::string>{built("service_program"), behaviour, ID, folder, "--daemon", daemon.socket()});
  EXPECT_TRUE(service->printed("registered")) << service->output();
  return service;
}

}  // namespace kelvane::tests
