// autoptool COMMAND [ARGUMENTS]: see the table below.
#include "autoptool.h"
#include "clock.h"
#include "firmwareSource.h"

#include <cstdio>
#include <cstring>

namespace {

// One row per command; later commands join here.
const autoptoolCommand kCommands[] = {
    {"fetch", "URL FILE", "download URL into FILE; prints the byte count and the time taken", autoptoolFetch},
    {"encrypt", "KEY IN OUT", "encrypt a configuration file as the phone expects it (KEY mac:<MAC>: the derived key)",
     autoptoolEncrypt},
    {"decrypt", "KEY IN OUT", "decrypt a configuration file; fails on a wrong key", autoptoolDecrypt},
    {"check", "[--table FILE] CONFIG",
     "dry run: the item each key maps to, and every unknown key (exit 1 when there is one)", autoptoolCheck},
    {"provision", "URL", "one provisioning run against $PROVISOR_ROOT, without the daemon", autoptoolProvision},
    {"image", "build --key KEY.pem --family F --models M1,M2 --version V PAYLOAD OUT | verify [--key PUB.pem] IMAGE",
     "make a signed firmware image, or check one (prints its header; exit 1 with the reason)", autoptoolImage},
    {"safemode-install", "", "the boot loader's safe-mode install: fetch strUpgradeURL, verify, flash",
     autoptoolSafemodeInstall},
    {"status", "[--json]", "what the daemon's last run did: trigger, source, each file's outcome, what is next",
     autoptoolStatus},
};

int usage(FILE* out) {
  fprintf(out, "usage: autoptool COMMAND [ARGUMENTS]\n");
  for (const autoptoolCommand& c : kCommands) fprintf(out, "  autoptool %s %s\n      %s\n", c.name, c.usage, c.summary);
  return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage(stderr);
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "help") == 0)
    return usage(stdout);
  installStartupClock();
  for (const autoptoolCommand& c : kCommands)
    if (strcmp(argv[1], c.name) == 0) return c.handler(argc - 2, argv + 2);
  fprintf(stderr, "autoptool: unknown command '%s'\n", argv[1]);
  return usage(stderr);
}
