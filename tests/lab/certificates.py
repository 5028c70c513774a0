"""Certificates as a fleet of devices has them, made by `openssl` in some 20 ms each.

    authority = Authority(folder)                     # its certificate: authority.certificate
    server = authority.issue("server-1")              # for ssl:127.0.0.1, ssl:[::1] and ssl:localhost
    device = authority.issue("device-7", names=())    # a client; the server takes the name for who it is
    startServer(SCHEMA, folder, options=["--remote=pssl:6640:127.0.0.1", *server.options()])
"""

import os
import pathlib
import subprocess
import time

LOOPBACK = ("DNS:localhost", "IP:127.0.0.1", "IP:::1")
_REQUEST = """[req]
distinguished_name = subject
x509_extensions = extensions
prompt = no
[subject]
O = Moatkeeper tests
CN = {name}
[extensions]
{extensions}
"""
_SIGNING = """[ca]
default_ca = own
[own]
database = {index}
new_certs_dir = {folder}
default_md = sha256
policy = any
unique_subject = no
rand_serial = yes
copy_extensions = copyall
[any]
organizationName = supplied
commonName = supplied
"""


class Identity:
    """A private key (readable by its owner only), its certificate and the authority's; all three are paths."""

    def __init__(self, privateKey, certificate, caCertificate):
        self.privateKey, self.certificate, self.caCertificate = privateKey, certificate, caCertificate

    def options(self):
        """On the command line of ovsdb-server, ovsdb-client and moatctl alike."""
        return [f"--private-key={self.privateKey}", f"--certificate={self.certificate}",
                f"--ca-cert={self.caCertificate}"]


class Authority:
    """A certificate authority. Several in one folder need different names."""

    def __init__(self, folder, name="authority"):
        self._folder = pathlib.Path(folder)
        self._folder.mkdir(parents=True, exist_ok=True)
        self._name = name
        self._key, self.certificate = self._make(name, ["basicConstraints = critical, CA:TRUE",
                                                        "keyUsage = critical, keyCertSign, cRLSign"])

    def issue(self, name, names=LOOPBACK, expires=None):
        """An Identity called `name` (CN). names: what its server is reached by, such as "DNS:centre-1.example" or
        "IP:192.0.2.1". expires: in how many seconds, less than 0 for one that has; else it holds for a month.
        Takes the place of an earlier one of that name, for programs that look at its files meanwhile: a server looks
        again only at a file whose time in seconds is another one."""
        extensions = ["basicConstraints = critical, CA:FALSE", "keyUsage = critical, digitalSignature"]
        if names:
            extensions.append(f"subjectAltName = {','.join(names)}")
        made = self._make(name, extensions, ["-CA", self.certificate, "-CAkey", self._key], file=f"{name}.new")
        if expires is not None:
            self._setEnd(*made, time.time() + expires)
        # A program that finds another key looks once whether the certificate is another one, too.
        certificate, key = (path.rename(self._file(name, path.suffix[1:])) for path in reversed(made))
        return Identity(key, certificate, self.certificate)

    def _file(self, name, ending):
        return self._folder / f"{name}.{ending}"

    def _make(self, name, extensions, signed=(), file=None):
        key, certificate, request = (self._file(file or name, ending) for ending in ("key", "pem", "request"))
        request.write_text(_REQUEST.format(name=name, extensions="\n".join(extensions)), encoding="utf-8")
        _openssl("req", "-x509", "-config", request, "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-noenc", "-keyout", key, "-out", certificate, "-days", "30", *signed)
        os.chmod(key, 0o600)
        return key, certificate

    def _setEnd(self, key, certificate, end):
        signing, index, request = (self._file(self._name, ending) for ending in ("signing", "index", "signed"))
        signing.write_text(_SIGNING.format(index=index, folder=self._folder), encoding="utf-8")
        index.touch()
        _openssl("x509", "-x509toreq", "-in", certificate, "-signkey", key, "-copy_extensions", "copyall", "-out", request)
        _openssl("ca", "-batch", "-config", signing, "-cert", self.certificate, "-keyfile", self._key, "-notext",
                 "-in", request, "-out", certificate, "-startdate", "20200101000000Z",
                 "-enddate", time.strftime("%Y%m%d%H%M%SZ", time.gmtime(end)))


def _openssl(*words):
    done = subprocess.run(["openssl", *map(str, words)], check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"openssl {words[0]}: {done.stderr}")
