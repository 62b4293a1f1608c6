"""A real nginx in the test's namespace that forwards HTTP requests over FastCGI.

nginx runs with a configuration of its own in a run directory of the test (no file of the
machine's nginx is written), listens on the given HTTP ports of 127.0.0.1 and passes every
request to 127.0.0.1:fcgi_port with Debian's fastcgi_params.
"""

import http.client
import os
import signal
import socket
import time

from sandbox import SLOW

CONF = """daemon off;
master_process on;
worker_processes 1;
user root;
pid {run}/nginx.pid;
error_log stderr info;
events {{ worker_connections 1024; }}
http {{
    access_log off;
    client_body_temp_path {run}/client_body;
    proxy_temp_path {run}/proxy;
    fastcgi_temp_path {run}/fastcgi;
    uwsgi_temp_path {run}/uwsgi;
    scgi_temp_path {run}/scgi;
    client_max_body_size 64m;
    server {{
{listen}
        location / {{
            include /etc/nginx/fastcgi_params;
            fastcgi_pass 127.0.0.1:{fcgi_port};
        }}
{extra}
    }}
}}
"""


def wait_for_port(port, timeout=5.0, host="127.0.0.1"):
    """Waits until something accepts TCP connections on the port."""
    deadline = time.monotonic() + timeout * SLOW
    while True:
        try:
            with socket.create_connection((host, port), timeout=1):
                return
        except OSError:
            if time.monotonic() > deadline:
                raise AssertionError("nothing listens on %s:%d" % (host, port))
            time.sleep(0.02)


class Nginx:
    def __init__(self, sandbox, fcgi_port, http_ports=(8085,), extra=""):
        self.run_dir = sandbox.path("nginx")
        os.makedirs(self.run_dir, exist_ok=True)
        self.http_ports = list(http_ports)
        self.conf = os.path.join(self.run_dir, "nginx.conf")
        listen = "\n".join("        listen 127.0.0.1:%d;" % p for p in self.http_ports)
        with open(self.conf, "w") as f:
            f.write(CONF.format(run=self.run_dir, fcgi_port=fcgi_port, listen=listen,
                                extra=extra))
        self.process = sandbox.spawn(["nginx", "-p", self.run_dir + "/", "-c", self.conf,
                                      "-e", "stderr"], name="nginx")
        for port in self.http_ports:
            wait_for_port(port)

    def request(self, method, path, body=None, headers=None, port=None, timeout=10.0):
        """One HTTP request; returns (status, reason, headers dict, body bytes)."""
        conn = http.client.HTTPConnection("127.0.0.1", port or self.http_ports[0],
                                          timeout=timeout * SLOW)
        try:
            conn.request(method, path, body=body, headers=headers or {})
            resp = conn.getresponse()
            data = resp.read()
            return resp.status, resp.reason, dict(resp.getheaders()), data
        finally:
            conn.close()

    @property
    def log(self):
        return self.process.stderr

    def stop(self):
        self.process.stop()

    def kill(self):
        """Ends master and workers at once with SIGKILL, as a crash would."""
        pid = self.process.pid
        try:
            with open("/proc/%d/task/%d/children" % (pid, pid)) as f:
                workers = [int(p) for p in f.read().split()]
        except OSError:
            workers = []
        for worker in workers:
            try:
                os.kill(worker, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.stop(signal.SIGKILL)
