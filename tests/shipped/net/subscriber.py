#!/usr/bin/env python3
"""A subscriber written against the documented wire form only: python3-zmq and python3-cbor2.

usage: subscriber.py ENDPOINT TOPIC COUNT
Prints "ready", then one line per data list received: "seq <n> id <hex> <values>", where each
value is shown by its CBOR meaning; exits 0 after COUNT lists, 3 after 30 s without them.
Exits 77 when a module is missing, so that the test can skip.
"""
import sys

try:
    import cbor2
    import zmq
except ImportError as missing:
    print("missing python module: %s" % missing.name)
    sys.exit(77)


def show(value):
    if isinstance(value, bool):
        return "bool:%s" % value
    if isinstance(value, int):
        return "int:%d" % value
    if isinstance(value, float):
        return "double:%g" % value
    if isinstance(value, str):
        return "text:%s" % value
    if isinstance(value, bytes):
        return "bytes:%s" % value.hex()
    if isinstance(value, list):
        return "[" + ",".join(show(v) for v in value) + "]"
    if isinstance(value, dict):
        return "pen:%s/%g/%d" % (value["colour"], value["width"], value["style"])
    if hasattr(value, "isoformat"):  # tag 0, decoded by cbor2 into a datetime
        return "datetime:%s" % value.isoformat()
    if isinstance(value, cbor2.CBORTag):
        return "tag%d:%s" % (value.tag, value.value.hex())
    if value is cbor2.undefined:
        return "undefined"
    return "?%r" % (value,)


def main():
    endpoint, topic, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
    context = zmq.Context()
    socket = context.socket(zmq.SUB)
    socket.setsockopt(zmq.LINGER, 0)
    socket.setsockopt(zmq.SUBSCRIBE, topic.encode())
    socket.connect(endpoint)
    print("ready", flush=True)
    poller = zmq.Poller()
    poller.register(socket, zmq.POLLIN)
    seen = 0
    while seen < count:
        if not poller.poll(30000):
            print("timed out after %d lists" % seen, flush=True)
            return 3
        frames = socket.recv_multipart()
        envelope = cbor2.loads(frames[1])
        if frames[0] != topic.encode() or envelope["k"] != 0 or envelope["topic"] != topic:
            continue
        print("seq %d id %x %s" % (envelope["seq"], envelope["id"], show(envelope["data"])),
              flush=True)
        seen += 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
