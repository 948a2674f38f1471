#!/usr/bin/python3
"""An S3 server on the loopback address: Swift's four servers over one folder, as one command.

FOLDER PORT: the proxy listens on PORT, and three more on those behind it. The key is test:tester, the secret testing.
"""
import ctypes
import os
import pwd
import signal
import sys

import swift.common.utils

FOLDER, PORT = sys.argv[1], int(sys.argv[2])
KINDS = ("account", "container", "object")
COMMON = f"""
[DEFAULT]
bind_ip = 127.0.0.1
workers = 0
user = {pwd.getpwuid(os.getuid()).pw_name}
swift_dir = {FOLDER}
devices = {FOLDER}/disks
mount_check = false
fallocate_reserve = 0
log_address = /nonexistent
"""
PROXY = """
[pipeline:main]
pipeline = catch_errors cache s3api tempauth copy slo proxy-server
[app:proxy-server]
use = egg:swift#proxy
account_autocreate = true
[filter:catch_errors]
use = egg:swift#catch_errors
[filter:cache]
use = egg:swift#memcache
memcache_servers = 127.0.0.1:1
[filter:s3api]
use = egg:swift#s3api
[filter:tempauth]
use = egg:swift#tempauth
user_test_tester = testing .admin
[filter:copy]
use = egg:swift#copy
[filter:slo]
use = egg:swift#slo
"""


def write(name, text):
    with open(os.path.join(FOLDER, name), "w", encoding="ascii") as file:
        file.write(text)
    return os.path.join(FOLDER, name)


def ring(kind, port):
    builder = swift.common.ring.RingBuilder(2, 1, 0)
    builder.add_dev({"id": 0, "region": 0, "zone": 0, "weight": 1, "ip": "127.0.0.1", "port": port, "device": "disk"})
    builder.rebalance()
    builder.get_ring().save(os.path.join(FOLDER, f"{kind}.ring.gz"))


def end_with_parent():
    deathSignal = 1  # PR_SET_PDEATHSIG
    ctypes.CDLL(None).prctl(deathSignal, signal.SIGKILL, 0, 0, 0)


def serve(path, name):
    process = os.fork()
    if process == 0:
        end_with_parent()
        sys.exit(run_wsgi(path, name))
    return process


def main():
    """Until it is told to end."""
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    processes = []
    for i, kind in enumerate(KINDS):
        ring(kind, PORT + 1 + i)
        path = write(f"{kind}.conf", f"{COMMON}bind_port = {PORT + 1 + i}\n[pipeline:main]\npipeline = {kind}-server\n"
                                     f"[app:{kind}-server]\nuse = egg:swift#{kind}\n")
        processes.append(serve(path, f"{kind}-server"))
    processes.append(serve(write("proxy.conf", f"{COMMON}bind_port = {PORT}\n{PROXY}"), "proxy-server"))
    signal.sigwait([signal.SIGTERM])
    for process in processes:
        os.kill(process, signal.SIGKILL)
        os.waitpid(process, 0)


if __name__ == "__main__":
    os.makedirs(os.path.join(FOLDER, "disks", "disk"))
    # Read while the rest is loaded.
    swift.common.utils.SWIFT_CONF_FILE = write("swift.conf", "[swift-hash]\nswift_hash_path_suffix = suffix\n")
    import swift.common.ring
    from swift.common.wsgi import run_wsgi
    main()
