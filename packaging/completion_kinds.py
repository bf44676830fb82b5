"""What a value on the command line is, for completion: a kind that the completion file knows, or a list of words."""

# By the value's own name.
BY_NAME = {
    "MODULE": "modules", "--module": "modules", "FROM": "modules", "TO": "modules",
    "PORT": "ports", "--port": "ports",
    "INTF": "interfaces", "INTERFACE": "interfaces", "--iif": "interfaces", "--oif": "interfaces",
    "--iif-frr": "interfaces", "--notify": "interfaces", "--fastdrop": "interfaces", "--intf": "interfaces",
    "VRF": "vrfs", "--vrf": "vrfs",
    "WID": "workers", "--worker": "workers",
    "--namespace": "namespaces",
    "FILE": "files", "PATH": "files", "--file": "files", "--config": "files", "--plugin": "files", "--socket": "files",
    "--read-socket": "files", "--toggles": "directories", "--plugin-dir": "directories",
    "--svg": "files", "--group": "groups", "--read-group": "groups",
    "--log-level": "0,1,2", "--af": "4,6",
}
# Operands that are called NAME, by the command above theirs.
NAMES_OF = {"module": "modules", "port": "ports", "intf": "interfaces"}


def kind(command, option):
    name = option.names[-1]
    if option.choices:
        return ",".join(option.choices)
    if name == "NAME" and len(command.words) > 2 and command.words[2] != "add":
        return NAMES_OF.get(command.words[1], "nothing")
    if name.startswith("--tls-"):
        return "files"
    return BY_NAME.get(name, "nothing")
