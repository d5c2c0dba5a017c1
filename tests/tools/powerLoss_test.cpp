// Power cut at any moment of a whole provisioning run: a run that writes web passwords, a resource
// file, settings over several INI files and a firmware object is killed (SIGKILL, its own child
// only) when its log reaches line k, for k spread over the whole log of a completed run. After each
// kill every file of the root must be wholly as before or wholly as after the completed run, the
// remembered digest (OLD_VER) must not claim a file that is not all on disk, and the next run must
// finish the work and leave no temporary file behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "device.h"
#include "firmwareImages.h"

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

constexpr const char* kMac = "001565aabbcc";
constexpr const char* kDigestHolder = "config/system/system.ini";
constexpr size_t kSpreadKillPoints = 50;

using Tree = std::map<std::string, std::string>;  // relative path -> contents

// Keys of two INI files take turns, so the run cuts them into many small batches.
std::string configurationFile() {
  std::string text =
      "#!version:1.0.0.1\nsecurity.user_password = admin:newpass1\n"
      "dialplan.replace_rule.url = /srv/DialPlan.xml\n";
  const char* accountKeys[] = {"label", "display_name", "auth_name", "user_name", "sip_server_host", "expires"};
  const char* featureKeys[] = {"hotline_number", "dnd.on_code",     "dnd.off_code",
                               "relog_offtime",  "busy_tone_delay", "auto_redial_times"};
  for (int line = 1; line <= 4; ++line)
    for (int k = 0; k < 6; ++k)
      text += "account." + std::to_string(line) + "." + accountKeys[k] + " = " + std::to_string(line * 100 + k) +
              "\nfeatures." + featureKeys[k] + " = " + std::to_string(line * 7 + k) + "\n";
  return text + "firmware.url = /srv/fw.rom\n";
}

Tree readTree(const std::string& dir) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(dir))
    if (entry.is_regular_file()) tree[fs::relative(entry.path(), dir).string()] = readHostFile(entry.path().string());
  return tree;
}

// The temporaries of atomic writes carry ".tmp" in their names; tmp/ holds a run's downloads.
bool isTemporary(const std::string& path) {
  return path.compare(0, 4, "tmp/") == 0 || path.find(".tmp") != std::string::npos;
}

std::string oldVer(const Tree& tree) {
  auto found = tree.find(kDigestHolder);
  size_t at = found == tree.end() ? std::string::npos : found->second.find("[OLD_VER]");
  return at == std::string::npos ? "" : found->second.substr(at, found->second.find("\n[", at) - at);
}

size_t lineCount(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

// One `autoptool provision` into `root`; with killAtLine > 0 it is killed with SIGKILL as soon as
// its log (written and flushed per record) holds that many lines. Returns the log written.
std::string provision(const std::string& root, const std::string& logPath, size_t killAtLine = 0) {
  std::vector<std::string> words = programArgv("autoptool", {"provision", "/srv/p/"});
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string rootSetting = "PROVISOR_ROOT=" + root;
  pid_t pid = fork();
  if (pid == 0) {
    int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(log, 1);
    dup2(log, 2);
    putenv(rootSetting.data());
    putenv(const_cast<char*>("PROVISOR_FAKE_CLOCK=1"));
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  for (; waitpid(pid, &status, killAtLine ? WNOHANG : 0) == 0; usleep(200)) {
    if (lineCount(readHostFile(logPath)) >= killAtLine) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return readHostFile(logPath);
    }
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readHostFile(logPath);
  return readHostFile(logPath);
}

}  // namespace

TEST(PowerLoss, EveryFileIsWhollyOldOrNewAtAnyKillAndTheNextRunCompletesTheWork) {
  ScratchDir logs("powerloss");
  // The snapshot: last run's settings, password, resource with its companion, and a boot loader
  // environment, plus this run's files on the local "server".
  TempRoot snapshot;
  FirmwareKit kit(snapshot);
  ASSERT_TRUE(kit.ready());
  snapshot.write(kHostDeviceIni, std::string("[device]\nmac = ") + kMac + "\nip = 127.0.0.1\nfamily = duna\n");
  snapshot.write(kHostBootEnv, "[env]\nBOOTMODE = normal\n");
  snapshot.write("/config/user/voip/sipAccount0.cfg", "[account]\nLabel = Old\n");
  snapshot.write("/config/user/user.ini", "[Features]\nHotlineNumber = 1\n");
  snapshot.write("/config/data/DialPlan.xml", "<DialRule><Data Prefix=\"1\" Replace=\"2\"/></DialRule>\n");
  snapshot.write("/srv/DialPlan.xml", "<DialRule><Data Prefix=\"9\" Replace=\"0\" LineID=\"1\"/></DialRule>\n");
  snapshot.write("/srv/p/" + std::string(kMac) + ".cfg", configurationFile());
  snapshot.write("/srv/fw.rom", kit.image("duna", testBytes(40000, 6)));
  // Companions made by independent tools: the resource's digest file and the old web password.
  ASSERT_EQ(
      runCommand("cd " + snapshot.path() + " && mkdir -p phone/resource valdrun/config && cp " + PROVISOR_SOURCE_DIR +
                 "/data/autopTranslator.xml phone/resource/ && md5sum config/data/DialPlan.xml | head -c 32 > "
                 "config/data/DialPlan.xml.MD5 && perl -e 'print \"admin:\", crypt(\"oldpass\", \"ab\"), \"\\n\"' > "
                 "valdrun/config/.htpasswd"),
      0);
  const Tree before = readTree(snapshot.path());
  auto restore = [&](const TempRoot& root) {
    ASSERT_EQ(runCommand("cp -a " + snapshot.path() + "/. " + root.path()), 0);
  };

  Tree after;
  std::string wholeLog;
  {
    TempRoot completed;
    restore(completed);
    wholeLog = provision(completed.path(), logs.file("whole.log"));
    after = readTree(completed.path());
  }
  EXPECT_NE(wholeLog.find("an applied setting asks for a reboot"), std::string::npos) << wholeLog;
  std::vector<std::string> changed;
  std::string changedNames = " ";
  for (const auto& [path, contents] : after)
    if (before.count(path) == 0 || before.at(path) != contents) {
      changed.push_back(path);
      changedNames += fs::path(path).filename().string() + " ";
    }
  // The whole run writes every kind of file the kill points are to cut.
  for (const char* name : {".htpasswd", "DialPlan.xml", "DialPlan.xml.MD5", "sipAccount0.cfg", "sipAccount3.cfg",
                           "user.ini", "tr069.ini", "bootenv.ini", "system.ini"})
    EXPECT_NE(changedNames.find(std::string(" ") + name + " "), std::string::npos) << name << ":\n" << wholeLog;

  // Evenly over the run up to the firmware, then at every line of the firmware step: it is short,
  // and it is where the boot environment changes.
  const size_t romAt = wholeLog.find("***** Upgrade ROM File *****");
  ASSERT_NE(romAt, std::string::npos) << wholeLog;
  const size_t romStart = lineCount(wholeLog.substr(0, romAt)) + 1;
  ASSERT_GT(romStart, kSpreadKillPoints);
  std::vector<size_t> killLines;
  for (size_t point = 0; point < kSpreadKillPoints; ++point)
    killLines.push_back(1 + point * (romStart - 1) / kSpreadKillPoints);
  for (size_t line = romStart; line <= lineCount(wholeLog); ++line) killLines.push_back(line);

  int cutMidway = 0;  // kills that left some files old and others new: the test reached the writes
  for (size_t killAt : killLines) {
    SCOPED_TRACE("kill at log line " + std::to_string(killAt));
    TempRoot root;
    restore(root);
    provision(root.path(), logs.file("cut.log"), killAt);
    Tree cut = readTree(root.path());
    bool allNew = true, someNew = false;
    for (const std::string& path : changed) {
      auto found = cut.find(path);
      bool isOld =
          found == cut.end() ? before.count(path) == 0 : before.count(path) && before.at(path) == found->second;
      bool isNew = found != cut.end() && found->second == after.at(path);
      EXPECT_TRUE(isOld || isNew) << path << " is half written:\n" << (found == cut.end() ? "" : found->second);
      allNew = allNew && (isNew || path == kDigestHolder);
      someNew = someNew || isNew;
    }
    cutMidway += someNew && !allNew ? 1 : 0;
    if (oldVer(cut) == oldVer(after)) {
      EXPECT_TRUE(allNew) << "OLD_VER names a file not all on disk";
    }

    provision(root.path(), logs.file("next.log"));
    Tree next = readTree(root.path());
    for (const auto& [path, contents] : next) EXPECT_FALSE(isTemporary(path)) << path << " left behind";
    EXPECT_EQ(next.size(), after.size());
    for (const auto& [path, contents] : after)
      EXPECT_TRUE(next.count(path) && next.at(path) == contents) << path << ": the next run did not complete it";
  }
  EXPECT_GT(cutMidway, 0);
}
