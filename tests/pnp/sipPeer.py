"""A scripted plug-and-play server: sipPeer.py SCENARIO.json DAEMON.log. Waits for the phone's
"subscribes" SUBSCRIBEs on the group, then "delay_ms" or until the daemon's log holds "text", then
sends each of "notifies" to the phone from a fresh socket "src" (a second one, "alt", is there for
a Via to name) and prints where and how it was answered, ports shown as {src} and {alt}."""
import json, select, socket, struct, sys, time


def udp(port=0):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("" if port else "127.0.0.1", port))
    return s


def receive(sockets, deadline):
    """(socket, lines) of the next datagram before the deadline, or (None, []); SUBSCRIBEs counted."""
    global call_id, subscribes
    ready = select.select(sockets, [], [], max(0, deadline - time.time()))[0]
    if not ready:
        return None, []
    lines = ready[0].recv(65536).decode(errors="replace").split("\r\n")
    if lines[0].startswith("SUBSCRIBE "):
        call_id = next(l[9:] for l in lines if l.startswith("Call-ID: "))
        subscribes += 1
    return ready[0], lines


def notify(case, src, alt):
    body = case.get("body", "")
    headers = {"Via": "SIP/2.0/UDP %s;branch=z9hG4bK%s" % (case.get("via", "127.0.0.1:{src}").format(src=src, alt=alt),
                                                          case["name"].replace(" ", "-")),
               "From": "<sip:provisioning@127.0.0.1>;tag=srv", "To": "<sip:MAC@224.0.1.75>",
               "Call-ID": "other@10.9.9.9" if case.get("call_id") == "other" else call_id,
               "CSeq": "1 NOTIFY", "Event": "ua-profile", "Content-Length": str(case.get("length", len(body)))}
    lines = ["NOTIFY sip:MAC@127.0.0.1:5059 SIP/2.0"] + [n + ": " + v for n, v in headers.items() if n != case.get("omit")]
    return ("\r\n".join(lines) + "\r\n\r\n" + body).encode()


scenario = json.load(open(sys.argv[1]))
call_id, subscribes = None, 0
group = udp(5060)
group.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, struct.pack("4s4s", socket.inet_aton("224.0.1.75"),
                                                                          socket.inet_aton("127.0.0.1")))
deadline = time.time() + 30
while subscribes < scenario["subscribes"] and time.time() < deadline:
    receive([group], deadline)
while "text" in scenario and scenario["text"] not in open(sys.argv[2], errors="replace").read():
    time.sleep(0.005 if time.time() < deadline else sys.exit("the daemon never logged " + scenario["text"]))
time.sleep(scenario.get("delay_ms", 0) / 1000.0)
for case in scenario["notifies"]:
    labels = {udp(): "src", udp(): "alt", group: "5060"}
    ports = {label: s.getsockname()[1] for s, label in labels.items()}
    next(iter(labels)).sendto(notify(case, ports["src"], ports["alt"]), ("127.0.0.1", 5059))
    answered, lines = receive(list(labels), time.time() + 3)
    while lines and lines[0].startswith("SUBSCRIBE "):
        answered, lines = receive(list(labels), time.time() + 3)
    via = next((l for l in lines if l.startswith("Via: ")), "")
    for label in ("src", "alt"):
        via = via.replace("=%d" % ports[label], "={%s}" % label).replace(":%d" % ports[label], ":{%s}" % label)
    print("%s: %s %s | %s" % (case["name"], labels.get(answered, "none"), lines[0] if lines else "", via), flush=True)
