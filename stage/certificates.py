"""Keys and certificates that servers of the tests make for themselves."""

from __future__ import annotations

import ipaddress
import ssl
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import NameOID

_CA_USAGE = x509.KeyUsage(
    digital_signature=True,
    key_cert_sign=True,
    crl_sign=True,
    content_commitment=False,
    key_encipherment=False,
    data_encipherment=False,
    key_agreement=False,
    encipher_only=False,
    decipher_only=False,
)


@dataclass(frozen=True)
class ServerCertificate:
    """Files, all PEM: a server's certificate, its key, and the authority that signed it."""

    certificate: Path
    key: Path
    authority: Path

    def server_context(self) -> ssl.SSLContext:
        """Return what a server needs to serve with it."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.certificate, self.key)
        return context


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


def make_server_certificate(
    folder: Path, name: str = "127.0.0.1", *, valid_for: timedelta = timedelta(days=1)
) -> ServerCertificate:
    """Make an authority and a certificate for a name or numeric address, signed by it.

    The certificate has been valid since yesterday; a negative time gives an expired one.
    """
    files = ServerCertificate(folder / "server.crt", folder / "server.key", folder / "ca.crt")
    ca_key = make_key(folder / "ca.key")
    ca_name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "tests")])
    ca = (
        _builder(ca_name, ca_name, ca_key, ca_key, timedelta(days=1))
        .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
        .add_extension(_CA_USAGE, critical=True)
        .sign(ca_key, hashes.SHA256())
    )
    key = make_key(files.key)
    subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "server")])
    certificate = (
        _builder(subject, ca_name, key, ca_key, valid_for)
        .add_extension(x509.SubjectAlternativeName([_general_name(name)]), critical=False)
        .sign(ca_key, hashes.SHA256())
    )
    files.authority.write_bytes(ca.public_bytes(serialization.Encoding.PEM))
    files.certificate.write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
    return files


def _general_name(name: str) -> x509.GeneralName:
    try:
        return x509.IPAddress(ipaddress.ip_address(name))
    except ValueError:
        return x509.DNSName(name)


def _builder(
    subject: x509.Name,
    issuer: x509.Name,
    key: rsa.RSAPrivateKey,
    issuer_key: rsa.RSAPrivateKey,
    valid_for: timedelta,
) -> x509.CertificateBuilder:
    now = datetime.now(timezone.utc)
    # The key identifiers are what CPython 3.13's strict verification asks for.
    return (
        x509.CertificateBuilder()
        .subject_name(subject)
        .issuer_name(issuer)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - timedelta(days=1))
        .not_valid_after(now + valid_for)
        .add_extension(x509.SubjectKeyIdentifier.from_public_key(key.public_key()), critical=False)
        .add_extension(
            x509.AuthorityKeyIdentifier.from_issuer_public_key(issuer_key.public_key()), critical=False
        )
    )
