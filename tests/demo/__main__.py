"""./run demo: real hosts, real packets, every one of them checked. Exit code 0 only when all of it held.

    demo           network namespaces and veth pairs, kernel sockets as senders and receivers (needs root)
    demo --pcap    the same job from and to capture files; also what runs where namespaces are not allowed
"""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from demo import files, hosts  # noqa: E402 (the path comes first)
from demo.report import Report  # noqa: E402
from testbed.namespaces import available  # noqa: E402
from testbed.run import Run, exit_on_signals  # noqa: E402


def main(arguments):
    exit_on_signals()
    report = Report()
    allowed, reason = available()
    scene = hosts
    if "--pcap" in arguments:
        scene = files
        print("Packets come from capture files and go to capture files (--pcap).\n")
    elif not allowed:
        scene = files
        print(f"This machine allows no network namespaces here ({reason}): the same job with packet capture files.\n")
    try:
        with Run("demo") as run:
            scene.play(run, report)
    except KeyboardInterrupt:
        print("\ninterrupted; everything is taken down again")
        return 130
    report.check("nothing is left behind: no namespace, process, mount, shared memory, file", [])
    return report.finish()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
