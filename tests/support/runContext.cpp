#include "runContext.h"

#include "paths.h"
#include "testRoot.h"

namespace testing_support {

bool TestRunContext::loadShippedTable() {
  const std::string text = readHostFile(PROVISOR_SOURCE_DIR "/data/autopTranslator.xml");
  return !text.empty() && writeFileAtomic("/tmp/table.xml", text) && table.loadTransData("/tmp/table.xml");
}

}  // namespace testing_support
