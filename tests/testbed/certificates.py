"""Authorities and certificates for tests, made with the openssl program."""

import subprocess
from pathlib import Path

_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


def _openssl(*argv):
    subprocess.run(["openssl", *map(str, argv)], check=True, capture_output=True)


class Authority:
    def __init__(self, directory, name):
        self.directory = Path(directory)
        self.name = name
        self.cert = self.directory / f"{name}.pem"
        self.key = self.directory / f"{name}.key"
        _openssl("req", "-x509", *_KEY, "-days", 2, "-subj", f"/CN={name}", "-keyout", self.key, "-out", self.cert)

    def certificate(self, name, alternative):
        """(certificate, key) for /CN=name with one more name, such as IP:192.0.2.1."""
        base = self.directory / f"{self.name}-{name}"
        request, extension = base.with_suffix(".csr"), base.with_suffix(".ext")
        cert, key = base.with_suffix(".pem"), base.with_suffix(".key")
        extension.write_text(f"subjectAltName={alternative}\n")
        _openssl("req", *_KEY, "-subj", f"/CN={name}", "-keyout", key, "-out", request)
        _openssl("x509", "-req", "-days", 2, "-CAcreateserial", "-in", request, "-CA", self.cert, "-CAkey", self.key,
                 "-extfile", extension, "-out", cert)
        return cert, key
