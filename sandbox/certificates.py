"""Throwaway TLS certificates: one that the machine trusts, and several that it must not."""

import pathlib
import shutil
import ssl
import subprocess

HOST = "service.korvane.example"
FOLDER = pathlib.Path("/run/tls")
TRUST_STORE = "/etc/ssl/certs/ca-certificates.crt"
REQUEST = ["req", "-x509", "-nodes", "-days", "2"]
REQUEST += ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
SIGNED = ["-CA", "authority.crt", "-CAkey", "authority.key"]
SIGNED += ["-addext", "basicConstraints=critical,CA:FALSE"]


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


def make_all():
    """Makes an authority, trusts it and returns a TLS context for each certificate, by its name."""
    FOLDER.mkdir()
    make("authority", "Throwaway authority")
    shutil.copy(FOLDER / "authority.crt", TRUST_STORE)
    make("good", HOST, *SIGNED)
    make("wrong-host", "other.example", *SIGNED)
    make("self-signed", HOST)
    make("expired", HOST, *SIGNED, command=("faketime", "2020-01-01", "openssl"))
    return {name: context(name) for name in ("good", "wrong-host", "self-signed", "expired")}
