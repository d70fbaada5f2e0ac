"""The interface as impacket speaks it: its binding, its authentication, its encoder and its decoder."""

import struct
import sys

from impacket.dcerpc.v5 import rpcrt, transport
from impacket.dcerpc.v5.dtypes import LONG, LPWSTR, UCHAR, WSTR
from impacket.dcerpc.v5.ndr import NDRCALL, NDRPOINTER, NDRSTRUCT, NDRUniConformantArray
from impacket.uuid import string_to_bin, uuidtup_to_bin

import conversation

PORT = 6161
INTERFACE = uuidtup_to_bin((conversation.INTERFACE, "1.0"))
OTHER_INTERFACE = uuidtup_to_bin(("12345678-1234-abcd-ef00-0123456789ab", "1.0"))
TYPES = {
    "ntlm": rpcrt.RPC_C_AUTHN_WINNT,
    "negotiate": rpcrt.RPC_C_AUTHN_GSS_NEGOTIATE,
    "netlogon": rpcrt.RPC_C_AUTHN_NETLOGON,
}
LEVELS = {
    "connect": rpcrt.RPC_C_AUTHN_LEVEL_CONNECT,
    "packet": rpcrt.RPC_C_AUTHN_LEVEL_PKT,
    "integrity": rpcrt.RPC_C_AUTHN_LEVEL_PKT_INTEGRITY,
    "privacy": rpcrt.RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
}


class DCERPCSessionError(rpcrt.DCERPCException):
    pass


class ByteArray(NDRUniConformantArray):
    item = "c"


class ByteArrayPointer(NDRPOINTER):
    referent = (("Data", ByteArray),)


class RpcResult(NDRSTRUCT):
    structure = (("Success", UCHAR), ("Message", LPWSTR))


class DoRpc(NDRCALL):
    opnum = 0
    structure = (("Name", WSTR), ("Arguments", WSTR))


class DoRpcResponse(NDRCALL):
    structure = (("Output", LPWSTR), ("Result", RpcResult))


class DoRpcWithBinary(NDRCALL):
    opnum = 1
    structure = (("Name", WSTR), ("Arguments", WSTR), ("Length", LONG), ("Data", ByteArray))


class DoRpcWithBinaryResponse(NDRCALL):
    structure = (("Output", LPWSTR), ("OutLength", LONG), ("OutData", ByteArrayPointer), ("Result", RpcResult))


class InvokerTestConnection(NDRCALL):
    opnum = 2
    structure = (("Text", WSTR),)


class InvokerTestConnectionResponse(NDRCALL):
    structure = (("Result", RpcResult),)


def pointed_at(item, name):
    """What a field that is a pointer points at; None for a null pointer."""
    return None if item.fields[name]["ReferentID"] == 0 else item[name]


def pointed_text(item, name):
    value = pointed_at(item, name)
    if value is not None and value[-1:] != "\0":
        raise ValueError("a string has no end")
    return None if value is None else value[:-1]


def encode(name, fields):
    request = getattr(sys.modules[__name__], name)()
    if name == "InvokerTestConnection":
        request["Text"] = fields[0] + "\0"
        return request
    request["Name"] = fields[0] + "\0"
    request["Arguments"] = fields[1] + "\0"
    if name == "DoRpcWithBinary":
        data = bytes.fromhex(fields[2])
        request["Length"] = len(data)
        request["Data"] = [data[i : i + 1] for i in range(len(data))]
    return request


def decode(name, stub):
    response = getattr(sys.modules[__name__], name + "Response")(stub)
    output = data = None
    if name != "InvokerTestConnection":
        output = pointed_text(response, "Output")
    if name == "DoRpcWithBinary":
        items = pointed_at(response, "OutData")
        data = None if items is None else b"".join(items)
        if response["OutLength"] != len(data or b""):
            raise ValueError("the length of the data is wrong")
    return output, data, response["Result"]["Success"], pointed_text(response["Result"], "Message")


def alter(rpc):
    """The connection under one more context, if that is let in. Under authentication this client asks for a security
    context of its own with it."""
    try:
        rpc.alter_ctx(OTHER_INTERFACE)
    except rpcrt.DCERPCException as refusal:
        print("other interface refused:", refusal)
    try:
        return rpc.alter_ctx(INTERFACE)
    except rpcrt.DCERPCException as refusal:
        print("further context refused:", refusal)
        return rpc


def bind_rpc(options):
    rpc = transport.DCERPCTransportFactory("ncacn_ip_tcp:%s[%d]" % (options.host, PORT)).get_dce_rpc()
    if options.auth != "none":
        rpc.set_credentials(options.user, options.password, options.domain)
        rpc.set_auth_type(TYPES[options.auth])
        rpc.set_auth_level(LEVELS[options.level])
    if options.fragment:
        rpc.set_max_fragment_size(options.fragment)
    rpc.connect()
    if options.contexts:
        rpc.bind(INTERFACE, bogus_binds=3)
        return alter(rpc)
    rpc.bind(INTERFACE)
    return rpc


def tamper(link):
    """Changes one bit of what is sent from now on, of the stub of a request without an object."""
    send = link.send

    def send_changed(data, **options):
        stub = 24
        return send(data[:stub] + bytes([data[stub] ^ 1]) + data[stub + 1 :], **options)

    link.send = send_changed


def bind(options):
    try:
        rpc = bind_rpc(options)
    except rpcrt.DCERPCException as refusal:
        raise conversation.Refusal(refusal)

    if options.tamper:
        tamper(rpc.get_rpc_transport())

    def call(name, fields):
        request = encode(name, fields)
        try:
            rpc.call(request.opnum, request, string_to_bin(conversation.OBJECT) if options.object else None)
            stub = rpc.recv()
        except rpcrt.DCERPCException as refusal:
            raise conversation.Refusal(refusal)
        return conversation.answer(name, *decode(name, stub), request.getData(), stub)

    return call


if __name__ == "__main__":
    conversation.converse(bind, conversation.arguments())
