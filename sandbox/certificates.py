"""Throwaway TLS certificates, and an authority for them that the machine trusts."""

import pathlib
import shutil
import ssl
import subprocess

HOST = "service.korvane.example"
FOLDER = pathlib.Path("/run/tls")
TRUST_STORE = "/etc/ssl/certs/ca-certificates.crt"
REQUEST = "req -x509 -nodes -days 2 -newkey ec -pkeyopt ec_paramgen_curve:P-256".split()
SIGNED = "-CA authority.crt -CAkey authority.key -addext basicConstraints=critical,CA:FALSE".split()


def make(name, host, *signer, command=("openssl",)):
    """Makes NAME.key and NAME.crt for this host, signed by itself or as the signer says."""
    request = [*command, *REQUEST, *signer]
    request += ["-subj", f"/CN={host}", "-addext", f"subjectAltName=DNS:{host}"]
    request += ["-keyout", f"{name}.key", "-out", f"{name}.crt"]
    subprocess.run(request, check=True, capture_output=True, cwd=FOLDER)


def context(name):
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(FOLDER / f"{name}.crt", FOLDER / f"{name}.key")
    return made


def make_good():
    """Makes an authority, trusts it, and returns the context of a certificate that it signed."""
    FOLDER.mkdir()
    make("authority", "Throwaway authority")
    shutil.copy(FOLDER / "authority.crt", TRUST_STORE)
    make("good", HOST, *SIGNED)
    return context("good")
