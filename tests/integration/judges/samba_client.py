"""The interface as Samba's client libraries speak it, which check every signature of the peer.

They call interfaces that they were compiled with only. So the identifier of one of those is replaced in the memory of
this process by the one that is meant; its operations are called with bare stubs.
"""

import ctypes
import mmap
import uuid

from samba import NTSTATUSError
from samba.credentials import DONT_USE_KERBEROS, MUST_USE_KERBEROS, Credentials
from samba.dcerpc import atsvc
from samba.param import LoadParm

import conversation
import stubs

PORT = 6161
COMPILED = uuid.UUID("1ff70682-0a51-30e8-076d-740be8cee98b")
LEVELS = {"connect": "connect", "packet": "packet", "integrity": "sign", "privacy": "seal"}
TYPES = {"ntlm": "ntlm", "negotiate": "spnego", "kerberos": "krb5"}


def replace_interface():
    library = ctypes.CDLL("libndr-standard.so.0")
    table = ctypes.addressof(ctypes.c_char.in_dll(library, "ndr_table_atsvc"))
    size = 64
    place = ctypes.string_at(table, size).index(COMPILED.bytes_le) + table
    page = place & -mmap.PAGESIZE
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mprotect(ctypes.c_void_p(page), ctypes.c_size_t(2 * mmap.PAGESIZE), mmap.PROT_READ | mmap.PROT_WRITE) != 0:
        raise OSError(ctypes.get_errno(), "mprotect")
    ctypes.memmove(place, uuid.UUID(conversation.INTERFACE).bytes_le, 16)


def credentials(options, parameters):
    result = Credentials()
    result.guess(parameters)
    if options.auth == "none":
        result.set_anonymous()
        return result
    if options.user:
        result.set_username(options.user)
        result.set_domain(options.domain)
        result.set_password(options.password)
        result.set_kerberos_state(DONT_USE_KERBEROS)
    else:
        result.set_kerberos_state(MUST_USE_KERBEROS)
    return result


def bind(options):
    parameters = LoadParm()
    parameters.load_default()
    words = [str(PORT)]
    if options.auth != "none":
        words += [LEVELS[options.level], TYPES[options.auth]]
    if options.big:
        words.append("bigendian")
    binding = "ncacn_ip_tcp:%s[%s]" % (options.host, ",".join(words))
    known = credentials(options, parameters)
    try:
        connection = atsvc.atsvc(binding, parameters, known)
        if options.contexts:
            connection = atsvc.atsvc(binding, parameters, known, basis_connection=connection)
    except NTSTATUSError as refusal:
        raise conversation.Refusal(refusal.args[1])

    def call(name, fields):
        request = stubs.encode(name, fields, options.big)
        try:
            stub = connection.request(stubs.OPNUMS[name], request)
        except NTSTATUSError as refusal:
            raise conversation.Refusal(refusal.args[1])
        return conversation.answer(name, *stubs.decode(name, stub), request, stub)

    return call


if __name__ == "__main__":
    replace_interface()
    conversation.converse(bind, conversation.arguments())
