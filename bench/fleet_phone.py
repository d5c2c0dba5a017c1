#!/usr/bin/env python3
"""The phone's other applications for a whole fleet of sandbox roots, in one light process.

  fleet_phone.py serve ROOTS_FILE RESULTS_FILE
      In every root listed (one path a line) binds the message queues of the phone application
      (app_vpPhone: answers every synchronous question with 1, "not in a call") and of the screen
      application (app_vpScreen: sees the broadcasts). Each provisioning result broadcast (0x10201)
      becomes one line of RESULTS_FILE: "<root index> <unix time, ms> <lparam>". Writes "ready" on
      standard output once every queue is bound; runs until SIGTERM.
  fleet_phone.py post ROOTS_FILE ID
      Posts message ID (decimal or 0x hexadecimal) to the service thread "provisor" of every root.

The queues are Unix datagram sockets under <root>/tmp/msgq, one per thread name; a datagram is a
header of eight native 32-bit words (magic "MSGQ", kind 1 message or 2 reply, id, wParam, lParam,
sequence, extra size, reply-address size), the reply address, then the extra data. The daemons may
run under other user ids: the sockets are made writable by everybody.
"""
import os
import resource
import selectors
import signal
import socket
import struct
import sys
import time

MAGIC = 0x4D534751
KIND_MESSAGE, KIND_REPLY = 1, 2
HEADER = struct.Struct("=8I")
RESULT_BROADCAST = 0x10201
NOT_IN_A_CALL = 1


def roots_from(path):
    with open(path) as f:
        return [line.strip() for line in f if line.strip()]


def raise_descriptor_limit(needed):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    want = min(hard, max(soft, needed + 64))
    if want > soft:
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))


def bind_queue(root, name):
    directory = os.path.join(root, "tmp", "msgq")
    os.makedirs(directory, exist_ok=True)
    os.chmod(directory, 0o777)
    path = os.path.join(directory, name)
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(path)
    os.chmod(path, 0o666)
    s.setblocking(False)
    return s


def reply(sock, header_words, address):
    _, _, msg_id, _, _, sequence, _, _ = header_words
    datagram = HEADER.pack(MAGIC, KIND_REPLY, msg_id, NOT_IN_A_CALL, 0, sequence, 0, 0)
    try:
        sock.sendto(datagram, address)
    except OSError:
        pass  # the asker gave up; it counts the silence as a call in progress


def serve(roots_file, results_file):
    roots = roots_from(roots_file)
    raise_descriptor_limit(2 * len(roots))
    selector = selectors.DefaultSelector()
    sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    for index, root in enumerate(roots):
        for name in ("app_vpPhone", "app_vpScreen"):
            selector.register(bind_queue(root, name), selectors.EVENT_READ, (index, name))
    results = open(results_file, "a", buffering=1)
    running = [True]
    signal.signal(signal.SIGTERM, lambda *_: running.__setitem__(0, False))
    print("ready", flush=True)
    while running[0]:
        for key, _ in selector.select(timeout=0.5):
            while True:
                try:
                    data = key.fileobj.recv(4096)
                except (BlockingIOError, InterruptedError):
                    break
                if len(data) < HEADER.size:
                    continue
                words = HEADER.unpack_from(data)
                if words[0] != MAGIC or words[1] != KIND_MESSAGE:
                    continue
                address_size = words[7]
                if address_size:
                    address = data[HEADER.size:HEADER.size + address_size].decode(errors="replace")
                    reply(sender, words, address)
                # Broadcasts reach both queues of a root: the screen's copy is the one counted.
                if words[2] == RESULT_BROADCAST and key.data[1] == "app_vpScreen":
                    results.write("%d %d %d\n" % (key.data[0], int(time.time() * 1000), words[4]))
    for key in list(selector.get_map().values()):
        path = key.fileobj.getsockname()
        key.fileobj.close()
        try:
            os.unlink(path)
        except OSError:
            pass


def post(roots_file, message_id):
    sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    datagram = HEADER.pack(MAGIC, KIND_MESSAGE, message_id, 0, 0, 0, 0, 0)
    missed = 0
    for root in roots_from(roots_file):
        try:
            sender.sendto(datagram, os.path.join(root, "tmp", "msgq", "provisor"))
        except OSError:
            missed += 1
    if missed:
        print("%d daemons not reached" % missed, file=sys.stderr)
    return 1 if missed else 0


def main(argv):
    if len(argv) == 4 and argv[1] == "serve":
        serve(argv[2], argv[3])
        return 0
    if len(argv) == 4 and argv[1] == "post":
        return post(argv[2], int(argv[3], 0))
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
