#!/usr/bin/python3 -B
"""Runs the program of a service unit under the unit's own restrictions, where no service manager is running.

    sandbox.py UNIT ROOT [SETTING]

ROOT becomes the root directory; the program is the one of SETTING, ExecStart when it is left out. Capabilities, system
calls, address families, kinds of namespaces, writable code, limits, environment and the runtime directory are as the
unit says. Device access is a control group's matter, and clock, host name, keyring and realtime follow from the
capabilities and system calls here: those are left out. A setting that is in no list below is refused, so that none is
left out unseen.
"""

import ctypes
import os
import resource
import shlex
import subprocess
import sys
from pathlib import Path

import seccomp

KEPT_OUT = {"Type", "NotifyAccess", "WatchdogSec", "Restart", "RestartSec", "TimeoutStopSec",
            "RuntimeDirectoryMode", "DevicePolicy", "DeviceAllow", "ProtectClock", "ProtectHostname", "KeyringMode",
            "RestrictRealtime", "RestrictSUIDSGID", "SystemCallArchitectures", "SystemCallErrorNumber",
            "LockPersonality"}
APPLIED = {"Environment", "EnvironmentFile", "ExecStart", "ExecReload", "RuntimeDirectory", "LimitMEMLOCK",
           "LimitNOFILE", "CapabilityBoundingSet", "NoNewPrivileges", "RestrictAddressFamilies", "RestrictNamespaces",
           "SystemCallFilter", "MemoryDenyWriteExecute"}
NAMESPACES = {"cgroup": 0x02000000, "ipc": 0x08000000, "net": 0x40000000, "mnt": 0x00020000, "pid": 0x20000000,
              "user": 0x10000000, "uts": 0x04000000}
FAMILIES = {"AF_UNIX": 1, "AF_INET": 2, "AF_INET6": 10, "AF_NETLINK": 16, "AF_PACKET": 17, "AF_XDP": 44}
PR_SET_NO_NEW_PRIVS, PR_CAPBSET_DROP = 38, 24
WRITE, EXEC = 2, 4
_libc = ctypes.CDLL(None, use_errno=True)


def read(unit):
    """The settings of the [Service] section: name to the list of its values."""
    values = {}
    section = None
    for line in unit.read_text().replace("\\\n", " ").splitlines():
        if line.startswith("["):
            section = line
        elif section == "[Service]" and "=" in line and not line.startswith("#"):
            name, value = line.split("=", 1)
            values.setdefault(name, []).append(value)
    if unknown := set(values) - KEPT_OUT - APPLIED:
        raise SystemExit(f"sandbox: no idea of {', '.join(sorted(unknown))}")
    return values


def environment(values, root):
    """What the unit and its environment file set."""
    result = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin"}
    lines = values.get("Environment", [])
    for name in values.get("EnvironmentFile", []):
        path = root / name.lstrip("-").lstrip("/")
        lines = lines + [line for line in path.read_text().splitlines() if "=" in line and not line.startswith("#")]
    for line in lines:
        name, value = line.split("=", 1)
        result[name] = "".join(shlex.split(value))
    return result


def command(line, variables):
    """The words of a command line: ${X} is a part of one word, $X becomes as many words as it has."""
    words = []
    for word in line.split():
        if word.startswith("$") and not word.startswith("${"):
            words += variables.get(word[1:], "").split()
        else:
            for name, value in variables.items():
                word = word.replace("${" + name + "}", value)
            words.append(word)
    return words


def system_calls(words):
    """Every call of the filter, the sets with @ taken apart as the service manager does."""
    calls = set()
    for word in words:
        if word.startswith("@"):
            shown = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", word], check=True,
                                   capture_output=True, text=True).stdout.splitlines()
            calls |= system_calls([line.strip() for line in shown[1:] if line.strip() and "#" not in line])
        else:
            calls.add(word)
    return calls


def filtered(values):
    """The filter: what is not allowed fails with EPERM."""
    result = seccomp.SyscallFilter(seccomp.ERRNO(1))

    def allow(name, *arguments):
        try:
            number = seccomp.resolve_syscall(seccomp.Arch.NATIVE, name)
        except ValueError:  # a call of another kernel or machine
            return
        if number >= 0:
            result.add_rule(seccomp.ALLOW, number, *arguments)

    special = {"socket", "unshare", "clone", "setns", "clone3", "mmap", "mprotect", "pkey_mprotect"}
    for name in system_calls(values["SystemCallFilter"][0].split()) - special:
        allow(name)
    for family in values["RestrictAddressFamilies"][0].split():
        allow("socket", seccomp.Arg(0, seccomp.EQ, FAMILIES[family]))
    others = 0
    for name, bit in NAMESPACES.items():
        others |= 0 if name in values["RestrictNamespaces"][0].split() else bit
    for name, argument in (("unshare", 0), ("clone", 0), ("setns", 1)):
        allow(name, seccomp.Arg(argument, seccomp.MASKED_EQ, others, 0))
    result.add_rule(seccomp.ERRNO(38), "clone3")  # its flags are out of reach; the C library falls back to clone
    for bits in (0, WRITE, EXEC):
        allow("mmap", seccomp.Arg(2, seccomp.MASKED_EQ, WRITE | EXEC, bits))
    for name in ("mprotect", "pkey_mprotect"):
        allow(name, seccomp.Arg(2, seccomp.MASKED_EQ, EXEC, 0))
    return result


def drop_capabilities(kept):
    """Takes all others out of the bounding set: the program, run as root, has exactly what is left."""
    numbers = {}
    for line in Path("/usr/include/linux/capability.h").read_text().splitlines():
        words = line.split()
        if len(words) == 3 and words[1].startswith("CAP_") and words[2].isdigit():
            numbers[words[1]] = int(words[2])
    keep = {numbers[name] for name in kept}
    last = int(Path("/proc/sys/kernel/cap_last_cap").read_text())
    for number in set(range(last + 1)) - keep:
        if _libc.prctl(PR_CAPBSET_DROP, number, 0, 0, 0) != 0:
            raise OSError(ctypes.get_errno(), f"cannot drop capability {number}")


def limit(kind, wanted):
    """As the unit says; where this machine's own limit is lower, as high as it goes."""
    value = resource.RLIM_INFINITY if wanted == "infinity" else int(wanted)
    try:
        resource.setrlimit(kind, (value, value))
    except (PermissionError, ValueError):
        hard = resource.getrlimit(kind)[1]
        resource.setrlimit(kind, (hard, hard))


def main():
    unit, root = Path(sys.argv[1]), Path(sys.argv[2])
    values = read(unit)
    variables = environment(values, root)
    words = command(values[sys.argv[3] if sys.argv[3:] else "ExecStart"][0], variables)
    rules = filtered(values)
    inherited = {name: os.environ[name] for name in ("NOTIFY_SOCKET", "SYSNAME") if name in os.environ}
    runtime = Path("/run", values["RuntimeDirectory"][0])
    (root / str(runtime).lstrip("/")).mkdir(exist_ok=True)
    variables["RUNTIME_DIRECTORY"] = str(runtime)
    limit(resource.RLIMIT_MEMLOCK, values["LimitMEMLOCK"][0])
    limit(resource.RLIMIT_NOFILE, values["LimitNOFILE"][0])
    drop_capabilities(values["CapabilityBoundingSet"][0].split())
    os.chroot(root)
    os.chdir("/")
    if _libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "no_new_privs")
    rules.load()
    os.execve(words[0], words, {**variables, **inherited})


if __name__ == "__main__":
    main()
