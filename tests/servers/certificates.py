"""Keys and certificates that servers of the tests make for themselves."""

from __future__ import annotations

import ipaddress
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import NameOID


@dataclass(frozen=True)
class ServerCertificate:
    """Files, all PEM: a server's certificate for 127.0.0.1, its key, and the authority that signed it."""

    certificate: Path
    key: Path
    authority: Path


def make_key(path: Path) -> rsa.RSAPrivateKey:
    """Write a new private key and return it."""
    key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    path.write_bytes(
        key.private_bytes(
            serialization.Encoding.PEM,
            serialization.PrivateFormat.TraditionalOpenSSL,
            serialization.NoEncryption(),
        )
    )
    return key


def make_server_certificate(folder: Path) -> ServerCertificate:
    """Make an authority and a certificate for 127.0.0.1 signed by it, valid for a day."""
    files = ServerCertificate(folder / "server.crt", folder / "server.key", folder / "ca.crt")
    ca_key = make_key(folder / "ca.key")
    ca_name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "tests")])
    ca = (
        _builder(ca_name, ca_name, ca_key)
        .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
        .sign(ca_key, hashes.SHA256())
    )
    key = make_key(files.key)
    loopback = x509.IPAddress(ipaddress.ip_address("127.0.0.1"))
    certificate = (
        _builder(x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "server")]), ca_name, key)
        .add_extension(x509.SubjectAlternativeName([loopback]), critical=False)
        .sign(ca_key, hashes.SHA256())
    )
    files.authority.write_bytes(ca.public_bytes(serialization.Encoding.PEM))
    files.certificate.write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    return files


def _builder(subject: x509.Name, issuer: x509.Name, key: rsa.RSAPrivateKey) -> x509.CertificateBuilder:
    now = datetime.now(timezone.utc)
    return (
        x509.CertificateBuilder()
        .subject_name(subject)
        .issuer_name(issuer)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - timedelta(hours=1))
        .not_valid_after(now + timedelta(days=1))
    )
