#!/usr/bin/env python3
"""Starts one daemon per sandbox root, all at the same moment, and stays their parent.

  fleet_launch.py ROOTS_FILE PIDS_FILE PROGRAM [NAME=VALUE ...]

Each root (one path a line) gets PROGRAM with PROVISOR_ROOT set to it, standard input from
/dev/null and its log in <root>/autop.log, plus the environment given. Run as root, the daemon of
root number i runs under user and group id 61000 + i // 100: every user may hold only 128 inotify
instances, one per daemon. The process ids go to PIDS_FILE (one a line) once all are started; then
this process reaps its children and ends when the last one has. Every child is forked first and
waits at a gate (the end of a pipe) before it becomes the daemon, so that on a loaded machine the
daemons still start together, as phones do when the power comes back. PIDS_FILE.times gets the
moment the gate opened and the moment the last child had become the daemon (Unix time in ms).
"""
import os
import sys
import time


def spawn(program, root, uid, extra_env, gate):
    log = os.open(os.path.join(root, "autop.log"), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    pid = os.fork()
    if pid:
        os.close(log)
        return pid
    try:
        os.close(gate[1])
        os.read(gate[0], 1)  # returns when the parent closes its end
        os.close(gate[0])
        null = os.open(os.devnull, os.O_RDONLY)
        os.dup2(null, 0)
        os.dup2(log, 1)
        os.dup2(log, 2)
        if uid is not None:
            os.setgroups([])
            os.setgid(uid)
            os.setuid(uid)
        env = dict(os.environ, PROVISOR_ROOT=root, **extra_env)
        os.execve(program, [program], env)
    finally:
        os._exit(127)


def last_exec(pids, program):
    """The moment every child runs the program (each one's /proc/PID/exe names it)."""
    target = os.path.realpath(program)
    waiting = set(pids)
    while waiting:
        for pid in list(waiting):
            try:
                if os.readlink("/proc/%d/exe" % pid) != target:
                    continue
            except OSError:
                pass  # already gone: it did start
            waiting.discard(pid)
        if waiting:
            time.sleep(0.005)
    return int(time.time() * 1000)


def main(argv):
    if len(argv) < 4:
        print(__doc__, file=sys.stderr)
        return 2
    roots_file, pids_file, program = argv[1:4]
    extra_env = dict(item.split("=", 1) for item in argv[4:])
    with open(roots_file) as f:
        roots = [line.strip() for line in f if line.strip()]
    as_root = os.getuid() == 0
    gate = os.pipe()
    pids = [spawn(program, root, 61000 + i // 100 if as_root else None, extra_env, gate)
            for i, root in enumerate(roots)]
    os.close(gate[0])
    opened = int(time.time() * 1000)
    os.close(gate[1])
    with open(pids_file + ".times", "w") as f:
        f.write("%d %d\n" % (opened, last_exec(pids, program)))
    with open(pids_file + ".new", "w") as f:
        f.write("".join("%d\n" % pid for pid in pids))
    os.rename(pids_file + ".new", pids_file)
    for _ in pids:
        os.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
