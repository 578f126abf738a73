#!/usr/bin/python3
"""A small HTTPS server on loopback for the web tests and benchmark.

It makes a throwaway certificate authority and a server certificate for the DNS name
"localhost" (Wine does not match IP-address names), writes the authority's certificate
(DER) and the chosen port into the state folder, and serves until it is killed.

Paths (the first segment of a dispatch request chooses the answer, so a test picks the
behaviour through the base address it gives the program):
  /<kind>/dispatch/ulmo/checkforupdates?ver=V&mode=M
      newer       Version V+1 and the installer at /files/installer.exe
      same        Version V
      slow        Version V+1, its installer at /hold/slow
      unsized     Version V+1, its installer at /hold-unsized/unsized
      trickle     Version V+1, its installer at /trickle (for looking at the progress dialog)
      insecure    Version V+1, its installer at a plain http address
      wrongkind   "Version" as a string
      packs       Version V, language packs at /files/pack.lpack and /files/bad.lpack
      deployed    Version V+1 and the language packs of "packs"
      broken      status 500
      redirect-http   302 to "same" over plain http
      redirected  Version V+1, its installer reached https -> http -> https
  /quit                  ends the server
  /echo                  the request's User-Agent and Accept headers as JSON
  /status/<n>            status n with a short body
  /bytes/<n>             n bytes of a known pattern, with Content-Length
  /chunked-slow          a chunked body in 20 parts, 50 ms apart
  /cut                   announces 10000 bytes, sends 4000, closes
  /hold/<name>           announces 300000 bytes, sends 100000, and sends the rest once
                         /release/<name> has come (closes after 60 s without it)
  /hold-unsized/<name>   the same without a size (chunked)
  /trickle               announces 20 MiB and sends 100 KiB every 0.2 s
  /release/<name>        lets the held response of that name go on (also one still to come)
  /redirect-http         302 to the same answers over plain http (a second server)
  /via-http/<path>       302 to /back-to-https/<path> over plain http, which sends 302 to
                         https /<path>
  /hops/<n>/<path>       n redirects (302) over https, then /<path>
  /files/<name>          a file from the files folder (--files)
"""

import argparse
import datetime
import http.server
import json
import os
import socket
import socketserver
import ssl
import sys
import threading
import time
import urllib.parse

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

PATTERN = bytes(range(256)) * 4096  # 1 MiB

# Held responses by name, shared by both servers: a test releases them when it is ready.
HELD = {}
HELD_LOCK = threading.Lock()


def held(name):
    with HELD_LOCK:
        return HELD.setdefault(name, threading.Event())


def pattern(n):
    whole, rest = divmod(n, len(PATTERN))
    return PATTERN * whole + PATTERN[:rest]


def make_certificates(state):
    now = datetime.datetime.utcnow()
    ca_key = ec.generate_private_key(ec.SECP256R1())
    ca_name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "tessel web tests CA")])
    ca = (x509.CertificateBuilder().subject_name(ca_name).issuer_name(ca_name)
          .public_key(ca_key.public_key()).serial_number(x509.random_serial_number())
          .not_valid_before(now - datetime.timedelta(days=1)).not_valid_after(now + datetime.timedelta(days=2))
          .add_extension(x509.BasicConstraints(ca=True, path_length=0), critical=True)
          .add_extension(x509.KeyUsage(digital_signature=True, key_cert_sign=True, crl_sign=True,
                                       content_commitment=False, key_encipherment=False, data_encipherment=False,
                                       key_agreement=False, encipher_only=False, decipher_only=False), critical=True)
          .sign(ca_key, hashes.SHA256()))
    key = ec.generate_private_key(ec.SECP256R1())
    cert = (x509.CertificateBuilder()
            .subject_name(x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "localhost")]))
            .issuer_name(ca_name).public_key(key.public_key()).serial_number(x509.random_serial_number())
            .not_valid_before(now - datetime.timedelta(days=1)).not_valid_after(now + datetime.timedelta(days=2))
            .add_extension(x509.SubjectAlternativeName([x509.DNSName("localhost")]), critical=False)
            .add_extension(x509.ExtendedKeyUsage([x509.oid.ExtendedKeyUsageOID.SERVER_AUTH]), critical=False)
            .sign(ca_key, hashes.SHA256()))
    with open(os.path.join(state, "ca.der"), "wb") as f:
        f.write(ca.public_bytes(serialization.Encoding.DER))
    with open(os.path.join(state, "ca.pem"), "wb") as f:
        f.write(ca.public_bytes(serialization.Encoding.PEM))
    cert_path = os.path.join(state, "server.pem")
    with open(cert_path, "wb") as f:
        f.write(cert.public_bytes(serialization.Encoding.PEM))
        f.write(ca.public_bytes(serialization.Encoding.PEM))
        f.write(key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                  serialization.NoEncryption()))
    return cert_path


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "tessel-test"

    def log_message(self, *args):
        pass

    def send_body(self, status, body, content_type="application/octet-stream"):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def send_json(self, document):
        self.send_body(200, json.dumps(document).encode(), "application/json")

    def base(self):
        return "https://localhost:%d/" % self.server.server_address[1]

    def dispatch(self, kind, query):
        own = int(query.get("ver", ["0"])[0])
        if kind == "broken":
            return self.send_body(500, b"broken")
        if kind == "redirect-http":
            self.send_response(302)
            self.send_header("Location", "http://localhost:%d/same/dispatch/ulmo/checkforupdates?ver=%d&mode=1"
                             % (self.server.plain_port, own))
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        document = {"Version": own, "Url": self.base() + "files/installer.exe",
                    "Promo": {"Title": "[[[bTest offer]]]", "Url": "https://localhost/offer",
                              "ExpiresOn": "2099-12-31T00:00:00"},
                    "LanguagePacks": []}
        if kind in ("newer", "insecure", "slow", "unsized", "trickle", "redirected", "deployed"):
            document["Version"] = own + 1
        if kind == "slow":
            document["Url"] = self.base() + "hold/slow"
        if kind == "unsized":
            document["Url"] = self.base() + "hold-unsized/unsized"
        if kind == "trickle":
            document["Url"] = self.base() + "trickle"
        if kind == "insecure":
            document["Url"] = "http://localhost:%d/files/installer.exe" % self.server.server_address[1]
        if kind == "redirected":
            document["Url"] = self.base() + "via-http/files/installer.exe"
        if kind == "wrongkind":
            document["Version"] = str(own + 1)
        if kind in ("packs", "deployed"):
            made_for = own // 10000 * 10000
            document["LanguagePacks"] = [
                {"Name": "Deutsch", "Locale": "de-DE", "Version": 7, "ClientVersion": made_for,
                 "Url": self.base() + "files/pack.lpack", "Credits": [{"Name": "T", "EMail": "t@example.test"}]},
                {"Name": "Fran\u00e7ais", "Locale": "fr-FR", "Version": 7, "ClientVersion": made_for,
                 "Url": self.base() + "files/bad.lpack", "Credits": []},
                {"Name": "Old", "Locale": "it-IT", "Version": 7, "ClientVersion": made_for - 1000000,
                 "Url": self.base() + "files/pack.lpack", "Credits": []},
            ]
        self.send_json(document)

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        parts = url.path.strip("/").split("/")
        query = urllib.parse.parse_qs(url.query)
        if len(parts) == 4 and parts[1:] == ["dispatch", "ulmo", "checkforupdates"]:
            return self.dispatch(parts[0], query)
        head = parts[0]
        if head == "quit":
            self.send_body(200, b"bye")
            self.wfile.flush()
            os._exit(0)
        if head == "echo":
            return self.send_json({"agent": self.headers.get("User-Agent", ""),
                                   "accept": ", ".join(self.headers.get_all("Accept", [])), "path": self.path})
        if head == "status":
            return self.send_body(int(parts[1]), b"status body")
        if head == "bytes":
            return self.send_body(200, pattern(int(parts[1])))
        if head == "chunked-slow":
            self.send_response(200)
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            for i in range(20):
                piece = pattern(1000)
                self.wfile.write(b"%x\r\n%s\r\n" % (len(piece), piece))
                self.wfile.flush()
                time.sleep(0.05)
            self.wfile.write(b"0\r\n\r\n")
            return
        if head == "trickle":
            size = 20 << 20
            self.send_response(200)
            self.send_header("Content-Length", str(size))
            self.end_headers()
            try:
                for start in range(0, size, 100 << 10):
                    self.wfile.write(pattern(min(100 << 10, size - start)))
                    self.wfile.flush()
                    time.sleep(0.2)
            except OSError:
                pass
            return
        if head == "cut":
            self.send_response(200)
            self.send_header("Content-Length", "10000")
            self.end_headers()
            self.wfile.write(pattern(4000))
            self.wfile.flush()
            self.close_connection = True
            return
        if head in ("hold", "hold-unsized") and len(parts) == 2:
            sized = head == "hold"
            self.send_response(200)
            self.send_header("Content-Length" if sized else "Transfer-Encoding", "300000" if sized else "chunked")
            self.end_headers()
            body = pattern(300000)
            write = self.wfile.write if sized else lambda part: self.wfile.write(b"%x\r\n%s\r\n" % (len(part), part))
            write(body[:100000])
            self.wfile.flush()
            released = held(parts[1]).wait(60)
            with HELD_LOCK:
                HELD.pop(parts[1], None)
            if not released:
                self.close_connection = True
                return
            try:
                write(body[100000:])
                if not sized:
                    self.wfile.write(b"0\r\n\r\n")
            except OSError:
                pass
            return
        if head == "release" and len(parts) == 2:
            held(parts[1]).set()
            return self.send_body(200, b"released")
        if head == "redirect-http":
            self.send_response(302)
            self.send_header("Location", "http://localhost:%d/bytes/10" % self.server.plain_port)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if head in ("via-http", "back-to-https", "hops"):
            rest = "/".join(parts[1:])
            if head == "via-http":
                target = "http://localhost:%d/back-to-https/%s" % (self.server.plain_port, rest)
            elif head == "back-to-https":
                target = "https://localhost:%d/%s" % (self.server.https_port, rest)
            elif int(parts[1]) > 0:
                target = "/hops/%d/%s" % (int(parts[1]) - 1, "/".join(parts[2:]))
            else:
                self.path = "/" + "/".join(parts[2:])
                return self.do_GET()
            self.send_response(302)
            self.send_header("Location", target)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if head == "files" and len(parts) == 2:
            path = os.path.join(self.server.files, os.path.basename(parts[1]))
            if os.path.isfile(path):
                with open(path, "rb") as f:
                    return self.send_body(200, f.read())
        return self.send_body(404, b"not found")


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--state", required=True, help="folder for ca.der, port and the server's key")
    parser.add_argument("--files", default=".", help="folder served under /files/")
    parser.add_argument("--exit-after", type=float, default=0, help="seconds after which the server ends itself")
    args = parser.parse_args()
    os.makedirs(args.state, exist_ok=True)
    if args.exit_after > 0:
        timer = threading.Timer(args.exit_after, lambda: os._exit(0))
        timer.daemon = True
        timer.start()
    cert = make_certificates(args.state)
    server = Server(("127.0.0.1", 0), Handler)
    server.files = args.files
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    # The same answers over plain http, for redirects away from https.
    plain = Server(("127.0.0.1", 0), Handler)
    plain.files = args.files
    threading.Thread(target=plain.serve_forever, daemon=True).start()
    server.plain_port = plain.server_address[1]
    plain.plain_port = plain.server_address[1]
    server.https_port = plain.https_port = server.server_address[1]
    # A port that refuses: bound but never listening.
    refused = socket.socket()
    refused.bind(("127.0.0.1", 0))
    with open(os.path.join(args.state, "port.tmp"), "w") as f:
        f.write("%d %d %d\n" % (server.server_address[1], refused.getsockname()[1], plain.server_address[1]))
    os.replace(os.path.join(args.state, "port.tmp"), os.path.join(args.state, "port"))
    server.serve_forever()


if __name__ == "__main__":
    sys.exit(main())
