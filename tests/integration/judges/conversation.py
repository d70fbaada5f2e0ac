"""What the judges have in common: their command line, the calls that they read and the lines that they print.

Each line of standard input is one call: the name of the operation and its arguments, apart by tabs; binary data is
hexadecimal. Each call is answered by one line: the fields apart by tabs, "-" for a null pointer. A bind or a call
that is refused is one line that says so, and the last.
"""

import argparse
import sys

INTERFACE = "d1c2c07a-d989-48cc-a423-b73ecd518d40"
OBJECT = "5d3f0a1c-6b7e-4c52-9f10-2a4b6c8d0e1f"
NULL = "-"


class Refusal(Exception):
    """The peer said no."""


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("host")
    parser.add_argument("--auth", default="none", choices=["none", "ntlm", "negotiate", "kerberos", "netlogon"])
    parser.add_argument("--level", default="privacy", choices=["connect", "packet", "integrity", "privacy"])
    parser.add_argument("--user", default="")
    parser.add_argument("--domain", default="")
    parser.add_argument("--password", default="")
    parser.add_argument("--fragment", type=int, default=0, help="stub bytes of one fragment of a request")
    parser.add_argument("--big", action="store_true", help="integers go big end first")
    parser.add_argument("--stubs", action="store_true", help="print what went and came, byte for byte")
    parser.add_argument("--object", action="store_true", help="name an object in each request")
    parser.add_argument("--tamper", action="store_true", help="change one bit of each request on its way")
    parser.add_argument("--contexts", action="store_true", help="further presentation contexts, before and after")
    return parser.parse_args()


def text(value):
    return NULL if value is None else value.replace("\n", "\\n")


def answer(name, output, data, success, message, request, stub):
    """What the call of a client gives: the fields of its line, and the stubs that went and came."""
    fields = [str(success)]
    if name != "InvokerTestConnection":
        fields.append(text(output))
    if name == "DoRpcWithBinary":
        fields.append(NULL if data is None else data.hex())
    fields.append(text(message))
    return fields, request, stub


def converse(bind, options):
    """Binds and makes the calls of standard input. bind() gives a call(name, fields) that gives what answer() does,
    and may raise Refusal."""
    try:
        call = bind(options)
    except Refusal as refusal:
        print("bind refused:", refusal)
        return
    for line in sys.stdin.read().splitlines():
        name, *fields = line.split("\t")
        try:
            results, request, stub = call(name, fields)
        except Refusal as refusal:
            print("call refused:", refusal)
            return
        if options.stubs:
            print("request", request.hex())
            print("response", stub.hex())
        print("\t".join(results))
