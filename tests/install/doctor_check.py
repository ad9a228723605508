#!/usr/bin/python3
"""The installed doctor, as root of a machine of its own, in twelve set-ups that are broken in one way each."""

import contextlib
import http.server
import json
import os
import pathlib
import ssl
import subprocess
import sys
import tempfile
import threading
import time

SCRATCH = pathlib.Path(tempfile.mkdtemp())
HITS = "http://127.0.0.1:%d/hit/"
SEND = """
import orbiq, sys
orbiq.describe(bundle_identifier="tv.example.player")
orbiq.Tagger("ABC").send_hit()
if not orbiq.flush(10):
    sys.exit("the hit was not sent")
print("sent", flush=True)
sys.stdin.read()
"""


def openssl(*arguments):
    done = subprocess.run(["openssl", *arguments], capture_output=True, text=True, cwd=SCRATCH)
    if done.returncode:
        sys.exit(f"openssl {arguments[0]}: {done.stderr}")


def authority(name):
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "365", "-subj", f"/CN={name}",
            "-keyout", f"{name}.key", "-out", f"{name}.pem")


def certificate(name, signer="trusted", until="20990101000000Z", subject="IP:127.0.0.1"):
    (SCRATCH / "ca.conf").write_text(
        "[ca]\ndefault_ca = own\n[own]\ndatabase = index\nserial = serial\nnew_certs_dir = .\n"
        f"policy = any\nx509_extensions = names\n[any]\ncommonName = supplied\n[names]\nsubjectAltName = {subject}\n")
    (SCRATCH / "index").write_text("")
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}",
            "-keyout", f"{name}.key", "-out", f"{name}.csr")
    openssl("ca", "-batch", "-config", "ca.conf", "-rand_serial", "-md", "sha256", "-notext",
            "-cert", f"{signer}.pem", "-keyfile", f"{signer}.key", "-startdate", "20200101000000Z",
            "-enddate", until, "-in", f"{name}.csr", "-out", f"{name}.pem")


@contextlib.contextmanager
def server(access="full", status=200, ahead=0, tls=None, location=None):
    """Authorizes, takes hits, and refuses to be a proxy."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            body = f"access={access}|host={HITS % self.server.server_port}|cmsVI=7".encode()
            if status == 404:
                body = b"Not found"
            self.send_response(status)
            if location:
                self.send_header("Location", location)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def date_time_string(self, timestamp=None):
            return super().date_time_string(time.time() + ahead)

        def log_message(self, *arguments):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as serving:
        if tls:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(SCRATCH / f"{tls}.pem", SCRATCH / f"{tls}.key")
            serving.socket = context.wrap_socket(serving.socket, server_side=True)
        threading.Thread(target=serving.serve_forever, daemon=True).start()
        yield f"{'https' if tls else 'http'}://127.0.0.1:{serving.server_port}/auth/"
        serving.shutdown()


@contextlib.contextmanager
def sent_hit(environment):
    """A process that has sent its hit, and goes on."""
    with subprocess.Popen([sys.executable, "-c", SEND], env=environment, stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as process:
        if process.stdout.readline() != "sent\n":
            sys.exit("the application sent no hit")
        yield process


def diagnosis(serves, prefix=(), before=None, url=None, proxy=None):
    library = tempfile.mkdtemp(dir=SCRATCH)
    with server(**serves) as address, contextlib.ExitStack() as stack:
        environment = {**os.environ, "ORBIQ_LIBRARY_DIRECTORY": library,
                       "ORBIQ_AUTHORIZATION_SERVER": url or address}
        if proxy:
            environment["https_proxy"] = address
        if before:
            application = stack.enter_context(sent_hit(environment))
            if before == "sends":
                application.communicate()
        done = subprocess.run([*prefix, "orbiq-doctor", "--json", "--serial", "ABC", "--ca-bundle",
                               SCRATCH / "trusted.pem", "--bundle-identifier", "tv.example.player"],
                              env=environment, capture_output=True, text=True)
    try:
        steps = json.loads(done.stdout)["steps"]
    except ValueError:
        sys.exit(f"the doctor says: {done.stdout}{done.stderr}")
    causes = [remark["cause"] for step in steps for remark in step["remarks"] if "cause" in remark]
    return causes, done.returncode


def main():
    for name in ("trusted", "stranger"):
        authority(name)
    certificate("good")
    certificate("other", subject="DNS:other.example")
    certificate("old", until="20210101000000Z")
    certificate("strange", signer="stranger")
    read_only = ["unshare", "--mount", "sh", "-c",
                 'mount -t tmpfs -o ro none "$ORBIQ_LIBRARY_DIRECTORY" && exec "$@"', "-"]
    wrong = 0
    for name, expected, status, setup in (
            ("sound", [], 0, {"serves": {}}),
            ("no route", ["no-route", "not-connected"], 6, {"serves": {}, "prefix": ["unshare", "--net"]}),
            ("wrong name", ["wrong-name"], 9, {"serves": {"tls": "other"}}),
            ("expired certificate", ["expired"], 9, {"serves": {"tls": "old"}}),
            ("unknown authority", ["unknown-authority"], 9, {"serves": {"tls": "strange"}}),
            ("redirect to http", ["redirect-not-followed"], 10,
             {"serves": {"tls": "good", "status": 302, "location": "http://127.0.0.1/"}}),
            ("404", ["status-404"], 10, {"serves": {"status": 404}}),
            ("denied", ["denied"], 12, {"serves": {"access": "denied"}}),
            ("restricted after its hit", ["restricted"], 0,
             {"serves": {"access": "restricted"}, "before": "sends"}),
            ("clock a year off", ["clock-off"], 11, {"serves": {"ahead": 365 * 86400}}),
            ("directory read-only", ["read-only-file-system"], 4,
             {"serves": {}, "prefix": read_only}),
            ("file held by another process", ["held-by-another-process"], 0,
             {"serves": {}, "before": "holds"}),
            ("proxy that refuses", ["proxy-refuses"], 8,
             {"serves": {}, "url": "https://auth.example/", "proxy": True})):
        found = diagnosis(**setup)
        print(f"  {name}: {' '.join(found[0]) or 'nothing'}")
        if found != (expected, status):
            print(f"    expected: {expected} and {status}, not {found[1]}")
            wrong += 1
    sys.exit(wrong != 0)


if __name__ == "__main__":
    main()
