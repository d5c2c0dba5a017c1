// A provisioning run's context for tests: a table the test loads and a reboot request that only
// counts, handed down exactly as the service hands its own.
#pragma once

#include <string>

#include "autopContext.h"
#include "autopTranslator.h"

namespace testing_support {

struct TestRunContext {
  TestRunContext() {
    context.translator = &table;
    context.requestReboot = [this] { ++reboots; };
  }
  TestRunContext(const TestRunContext&) = delete;
  TestRunContext& operator=(const TestRunContext&) = delete;
  // Loads the shipped sample table through a file under the test's root.
  bool loadShippedTable();

  autopTranslator table;
  autopContext context;
  int reboots = 0;
};

}  // namespace testing_support
