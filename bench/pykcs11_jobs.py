#!/usr/bin/python3
"""The benchmark jobs as a PyKCS11 user writes them (Debian's python3-pykcs11).

    pykcs11_jobs.py MODULE PIN certs|keys|pair id|noid

certs: every certificate's value and CKA_ID; keys: what FindAllKeys reports of
every private key; pair: certificates and private keys read with one template
per object and paired by CKA_ID (by CKA_SUBJECT on a token without IDs).
Prints the number of objects read, or of pairs found.
"""
import sys

import PyKCS11
from PyKCS11 import LowLevel as ll

KEY_ATTRIBUTES = [ll.CKA_LABEL, ll.CKA_ID, ll.CKA_KEY_TYPE, ll.CKA_MODULUS, ll.CKA_EC_PARAMS, ll.CKA_SIGN,
                  ll.CKA_SIGN_RECOVER, ll.CKA_DECRYPT, ll.CKA_UNWRAP, ll.CKA_DERIVE, ll.CKA_ALWAYS_AUTHENTICATE,
                  ll.CKA_SENSITIVE, ll.CKA_EXTRACTABLE, ll.CKA_PRIVATE]


def read_certs(session, pairing_attr):
    certs = session.findObjects([(ll.CKA_CLASS, ll.CKO_CERTIFICATE)])
    return [session.getAttributeValue(c, [ll.CKA_VALUE, pairing_attr], allAsBinary=True) for c in certs]


def pair(session, pairing_attr):
    certs = read_certs(session, pairing_attr)
    keys = {}
    for key in session.findObjects([(ll.CKA_CLASS, ll.CKO_PRIVATE_KEY)]):
        value, _sign = session.getAttributeValue(key, [pairing_attr, ll.CKA_SIGN], allAsBinary=True)
        if value:
            keys.setdefault(bytes(value), key)
    return sum(1 for _der, value in certs if bytes(value) in keys)


def main():
    module, pin, job, variant = sys.argv[1:5]
    pairing_attr = ll.CKA_SUBJECT if variant == "noid" else ll.CKA_ID
    lib = PyKCS11.PyKCS11Lib()
    lib.load(module)
    session = lib.openSession(lib.getSlotList(tokenPresent=True)[0])
    session.login(pin)
    if job == "certs":
        result = len(read_certs(session, ll.CKA_ID))
    elif job == "keys":
        keys = session.findObjects([(ll.CKA_CLASS, ll.CKO_PRIVATE_KEY)])
        result = len([session.getAttributeValue(k, KEY_ATTRIBUTES, allAsBinary=True) for k in keys])
    elif job == "pair":
        result = pair(session, pairing_attr)
    elif job == "login":  # what the other jobs cost before and after their work
        result = 0
    else:
        sys.exit("unknown job " + job)
    session.logout()
    session.closeSession()
    print(result)


if __name__ == "__main__":
    main()
