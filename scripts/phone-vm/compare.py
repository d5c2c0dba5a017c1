#!/usr/bin/env python3
"""Compares the phone's files between folders read out of its disk.

  compare.py same A B                 every tracked file of A and B is equal (exit 1 with the list)
  compare.py cut OLD NEW CUT          every tracked file of CUT is OLD's or NEW's (absent counts)
  compare.py temporaries DIR          lists what a writer cut short could leave behind

Tracked: every regular file below config/, phone/ and valdrun/ except the log backups. Two kinds of
value differ by design between two runs that applied the same settings, and are compared by what
they stand for: values stored protected ("ENC:" + random IV and cipher text) and the salted hashes
of the web password file, which are checked against the passwords the scenarios provision.
Prints one line per differing file; the last line is a count.

After a cut, a settings file (INI) is judged setting by setting: a run replaces some files more than
once (the system file takes the settings, then the digest of each configuration file applied), each
time whole and atomically, so a cut between two replacements leaves a file that is neither the first
nor the last version but holds every setting either old or new. Such a file is whole; a torn one has
a line that is no setting or a setting that is neither. One more value is whole there: an empty
digest in section OLD_VER, which the daemon stores for the per-device file when the common file
changed, so that the per-device file applies again on top of it. Other files are judged whole.
"""
import os
import re
import sys
import warnings

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

TRACKED = ("config", "phone", "valdrun")
SKIPPED = re.compile(r"^config/autop_log/")
# What the daemon keeps of earlier HTTP answers (for conditional downloads) is its own, not a setting:
# it names the server's URLs and validators, so it differs between any two servers. Its temporaries
# still count.
KEPT_ANSWERS = re.compile(r"^config/provisor\.d/cache/")
# Names a writer gives its temporaries and staging: "<file>.tmp<pid>.<n>", firmware "<slot>.new-*",
# archive staging ".unpack-*" / ".old-*", scratch pictures ".imageScale.*".
TEMPORARY = re.compile(r"(\.tmp\d+\.\d+$|\.new-[^/]*$|/\.unpack-|/\.old-|/\.imageScale\.)")
PASSWORDS = ("vm-pass-1", "vm-pass-2")
ENCRYPTED = re.compile(r"ENC:[A-Za-z0-9+/=]+")


def files_of(top):
    out = {}
    for part in TRACKED:
        base = os.path.join(top, part)
        for folder, _, names in os.walk(base):
            for name in names:
                path = os.path.join(folder, name)
                rel = os.path.relpath(path, top)
                if SKIPPED.match(rel) or not os.path.isfile(path) or os.path.islink(path):
                    continue
                out[rel] = path
    return out


def normalised(rel, path):
    with open(path, "rb") as f:
        data = f.read()
    if rel.endswith(".htpasswd"):
        lines = []
        for line in data.decode("latin-1").splitlines():
            name, _, hashed = line.partition(":")
            known = [p for p in PASSWORDS if hashed and crypt.crypt(p, hashed) == hashed]
            lines.append(name + ":=" + (known[0] if known else "?" + hashed))
        return "\n".join(lines).encode()
    return ENCRYPTED.sub("ENC:*", data.decode("latin-1")).encode("latin-1")


def contents(top):
    return {rel: normalised(rel, path) for rel, path in files_of(top).items()
            if not TEMPORARY.search("/" + rel) and not KEPT_ANSWERS.match(rel)}


def same(a, b):
    left, right = contents(a), contents(b)
    bad = sorted(rel for rel in set(left) | set(right) if left.get(rel) != right.get(rel))
    for rel in bad:
        print("differs: " + rel)
    print("%d differing files" % len(bad))
    return 1 if bad else 0


def settings(data):
    """(section, key) -> value of an INI text; None when a line is neither."""
    out, section = {}, ""
    for line in data.decode("latin-1").splitlines():
        text = line.strip()
        if not text or text[0] in "#;":
            continue
        if text.startswith("[") and text.endswith("]"):
            section = text[1:-1]
            continue
        key, equals, value = text.partition("=")
        if not equals:
            return None
        out[(section, key.strip())] = value.strip()
    return out


def whole(rel, old, new, after):
    if after == old or after == new:
        return True
    if not (rel.endswith(".ini") or rel.endswith(".cfg")) or after is None:
        return False
    o, n, c = (settings(x) if x is not None else {} for x in (old, new, after))
    if o is None or n is None or c is None:
        return False
    def allowed(key):
        return (o.get(key), n.get(key)) + (("",) if key[0] == "OLD_VER" else ())

    return all(c.get(k) in allowed(k) for k in set(o) | set(n) | set(c))


def cut(old, new, after):
    o, n, c = contents(old), contents(new), contents(after)
    bad = sorted(rel for rel in set(o) | set(n) | set(c) if not whole(rel, o.get(rel), n.get(rel), c.get(rel)))
    for rel in bad:
        print("torn: " + rel)
    changed = sum(1 for rel in set(o) | set(n) if o.get(rel) != n.get(rel))
    done = sum(1 for rel in set(o) | set(n) if o.get(rel) != n.get(rel) and c.get(rel) == n.get(rel))
    leftovers = [rel for rel in files_of(after) if TEMPORARY.search("/" + rel)]
    print("%d torn files, %d of %d changes made, %d temporaries" % (len(bad), done, changed, len(leftovers)))
    return 1 if bad else 0


def temporaries(top):
    found = sorted(rel for rel in files_of(top) if TEMPORARY.search("/" + rel))
    for rel in found:
        print("temporary: " + rel)
    print("%d temporaries" % len(found))
    return 1 if found else 0


if __name__ == "__main__":
    command, args = sys.argv[1], sys.argv[2:]
    sys.exit({"same": same, "cut": cut, "temporaries": temporaries}[command](*args))
