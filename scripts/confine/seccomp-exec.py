#!/usr/bin/python3
"""Runs a program under the system-call filter a systemd unit states.

  seccomp-exec.py UNIT-FILE -- PROGRAM [ARGUMENTS...]

Reads SystemCallFilter= (allow lists and "~" deny lists, groups expanded
with systemd-analyze syscall-filter), SystemCallErrorNumber=,
RestrictAddressFamilies= and MemoryDenyWriteExecute= from the unit's
[Service] section, loads the same filter as systemd would (for the native
architecture) and executes PROGRAM.  A unit setting this tool does not know
how to apply stops it with a message rather than being left out silently.
"""
import errno
import mmap
import os
import socket
import subprocess
import sys

import seccomp


def service_settings(path):
    settings = []
    section = None
    with open(path) as unit:
        for raw in unit:
            line = raw.strip()
            if not line or line.startswith(("#", ";")):
                continue
            if line.startswith("["):
                section = line
                continue
            if section == "[Service]" and "=" in line:
                key, value = line.split("=", 1)
                settings.append((key.strip(), value.strip()))
    return settings


def expand(name, seen=None):
    """The system calls of a name: itself, or a group's members, recursively."""
    if not name.startswith("@"):
        return {name}
    seen = seen if seen is not None else set()
    if name in seen:
        return set()
    seen.add(name)
    output = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True,
                            capture_output=True, text=True).stdout
    calls = set()
    for line in output.splitlines()[1:]:
        word = line.strip()
        if not word or word.startswith("#"):
            continue
        calls |= expand(word, seen)
    return calls


def main():
    if len(sys.argv) < 4 or sys.argv[2] != "--":
        sys.exit(__doc__)
    unit, program = sys.argv[1], sys.argv[3:]
    allowed = None
    error_number = None
    families = None
    deny_write_execute = False
    for key, value in service_settings(unit):
        if key == "SystemCallFilter":
            words = value.split()
            if words and words[0].startswith("~"):
                words[0] = words[0][1:]
                denied = set().union(*(expand(w) for w in words))
                if allowed is None:
                    sys.exit("a deny-only SystemCallFilter= is not emulated")
                allowed -= denied
            else:
                calls = set().union(*(expand(w) for w in words))
                allowed = calls if allowed is None else allowed | calls
        elif key == "SystemCallErrorNumber":
            error_number = getattr(errno, value)
        elif key == "RestrictAddressFamilies":
            if value.startswith("~"):
                sys.exit("a deny list in RestrictAddressFamilies= is not emulated")
            families = [getattr(socket, name) for name in value.split()]
        elif key == "MemoryDenyWriteExecute":
            deny_write_execute = value == "yes"
    if allowed is None:
        sys.exit("%s has no SystemCallFilter=" % unit)

    refuse = seccomp.ERRNO(error_number) if error_number else seccomp.KILL_PROCESS
    rules = seccomp.SyscallFilter(defaction=refuse)
    unknown = []
    conditional = {"socket", "mmap", "mprotect", "pkey_mprotect"}
    for call in sorted(allowed):
        if call in conditional and (families is not None or deny_write_execute):
            continue
        try:
            rules.add_rule(seccomp.ALLOW, call)
        except (RuntimeError, ValueError, OSError):
            unknown.append(call)
    if families is not None and "socket" in allowed:
        for family in families:
            rules.add_rule(seccomp.ALLOW, "socket", seccomp.Arg(0, seccomp.EQ, family))
    elif "socket" in allowed:
        rules.add_rule(seccomp.ALLOW, "socket")
    write_execute = mmap.PROT_WRITE | mmap.PROT_EXEC
    for call in ("mmap",):
        if call not in allowed:
            continue
        if deny_write_execute:
            for prot in (0, mmap.PROT_WRITE, mmap.PROT_EXEC):
                rules.add_rule(seccomp.ALLOW, call, seccomp.Arg(2, seccomp.MASKED_EQ, write_execute, prot))
        else:
            rules.add_rule(seccomp.ALLOW, call)
    for call in ("mprotect", "pkey_mprotect"):
        if call not in allowed:
            continue
        if deny_write_execute:
            rules.add_rule(seccomp.ALLOW, call, seccomp.Arg(2, seccomp.MASKED_EQ, mmap.PROT_EXEC, 0))
        else:
            rules.add_rule(seccomp.ALLOW, call)
    if unknown:
        print("seccomp-exec: not known on this architecture: " + " ".join(unknown), file=sys.stderr)
    rules.load()
    os.execv(program[0], program)


if __name__ == "__main__":
    main()
