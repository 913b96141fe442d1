#!/usr/bin/env python3
# Writes the seed corpus of each fuzz target into fuzz/corpus/<target>/ (or
# under the folder given). The seeds are committed; run this again only to
# change them. Each seed is a starting point the fuzzer mutates: real inputs
# for the ATR lookup and the JSON documents, and call sequences with hostile
# replies for the module targets.
import os
import random
import sys

ROOT = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def write(target, name, data):
    os.makedirs(os.path.join(ROOT, target), exist_ok=True)
    open(os.path.join(ROOT, target, name), "wb").write(data if isinstance(data, bytes) else data.encode("utf-8", "surrogateescape"))


for name, atr in {"jcop": "3B8980014A434F5032343252324A", "lower": "3b8980014a434f5032343252324a",
                  "blanks": "  3B 89 80 01 4A 43 4F 50 32 34 32 52 32 4A  ", "idprime": "3b7f96000080318065b084565110120ffe829000",
                  "family_xx": "3B9F958131FE9F006646530549230F7140000000000000000000000000000000", "odd": "3B8",
                  "nonhex": "3G89ZZ", "empty": "", "long": "3B" * 2048}.items():
    write("atr_lookup_fuzz", name, atr)

# A JSON document, then a backslash and a byte end it (FuzzedDataProvider's
# random-length string), then the queries.
QUERIES = b"\x07slots\x00id\x001\x00" + bytes(range(0, 40))
for name, doc in {"slots": '{"slots":[{"id":1,"token":{"label":"a"}},{"id":2}],"count":2}',
                  "cards": '{"cards":[{"atr":"3B","name":"x","driver":"1"}],"drivers":[{"id":"1","file":{"linux":["/a.so"]}}]}',
                  "malformed": '{"a":[1,2,{"b":', "strings": '{"k":"caf\u00e9 \\u0000 \\ud800","n":-1e308,"t":true,"z":null}',
                  "deep127": "[" * 127 + "]" * 127, "deep128": "[" * 128 + "]" * 128, "deep129": "[" * 129 + "]" * 129,
                  "deep_objects": '{"a":' * 200 + "1" + "}" * 200, "deep_unclosed": "[" * 20000}.items():
    write("json_fuzz", name, doc.replace("\\", "\\\\").encode("utf-8", "surrogateescape") + b"\\x" + QUERIES)

# Call opcodes of hostile_calls_fuzz (the first byte of each pair).
INITIALIZE, DISCOVER, OPEN, CLOSE, LOGIN, LOGOUT, QUICK, SETPIN, INITPIN, INITTOKEN = range(10)
FINDALLCERTS, GETCERT, FINDCERT, FINDALLKEYS, FINDOBJECT, SIGN, MODULES, RENEW, SIGPIN = range(10, 19)


def calls(*pairs):
    return bytes([len(pairs) - 1]) + bytes(b for pair in pairs for b in pair)


SESSION = calls((QUICK, 1), (FINDALLCERTS, 0), (FINDCERT, 0), (SIGN, 0), (FINDALLKEYS, 0), (FINDOBJECT, 1), (DISCOVER, 0),
                (GETCERT, 1), (LOGOUT, 0), (CLOSE, 0))
write("hostile_calls_fuzz", "session_honest", SESSION)
write("hostile_calls_fuzz", "admin_honest", calls((INITIALIZE, 0), (OPEN, 9), (LOGIN, 0), (SETPIN, 1), (INITPIN, 0), (CLOSE, 0),
                                                  (INITTOKEN, 1), (DISCOVER, 1)))
write("hostile_calls_fuzz", "lifecycle_honest", calls((QUICK, 1), (MODULES, 1), (DISCOVER, 0), (MODULES, 0), (RENEW, 0),
                                                      (QUICK, 1), (SIGPIN, 0), (FINDCERT, 0), (SIGN, 0)))
# Every lie, told again and again, and failures with garbage.
for lie in range(32):
    write("hostile_calls_fuzz", "session_lie%02d" % lie, SESSION + bytes([0, 0, 3, lie, 7]) * 24)
for rv in (3, 7, 21, 41, 60, 200, 255):
    write("hostile_calls_fuzz", "session_fail%03d" % rv, SESSION + bytes([1, 6, rv, 9]) * 24)
rng = random.Random(6)
for i in range(8):
    write("hostile_calls_fuzz", "random%d" % i, SESSION + bytes(rng.randrange(256) for _ in range(200)))

rng = random.Random(11)
for size in (0, 8, 24, 64, 200, 600, 2000):
    write("pairing_fuzz", "random%04d" % size, bytes(rng.randrange(256) for _ in range(size)))
# Small inputs: all zeros, all ones, and mixtures.
for fill in (0x00, 0x01, 0x55, 0xFF):
    write("pairing_fuzz", "fill%02x" % fill, bytes([fill]) * 48)
