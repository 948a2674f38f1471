"""Servers on the machine that rehearses, for machines whose network leads to it as 10.0.2.2: SMB and NFS."""
import contextlib
import os
import signal
import socket
import subprocess
import time

from cases import host


def wait_for_port(port, process, log):
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline and process.poll() is None:
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
            return
        time.sleep(0.2)
    with open(log, encoding="utf-8", errors="replace") as file:
        raise AssertionError(f"no server at port {port}: {file.read()[-2000:]}")


@contextlib.contextmanager
def running(command, port, log):
    with open(log, "wb") as file:
        process = subprocess.Popen(command, stdout=file, stderr=file,  # pylint: disable=consider-using-with
                                   stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            wait_for_port(port, process, log)
            yield
        finally:
            # A server of this kind has children.
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGTERM)
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()


@contextlib.contextmanager
def smb(folder, share, password):
    """The share //10.0.2.2/backup of the user backup."""
    own = os.path.join(folder, "smb")
    os.makedirs(own)
    config = os.path.join(own, "smb.conf")
    with open(config, "w", encoding="utf-8") as file:
        file.write(f"[global]\nworkgroup = KESTRIX\ninterfaces = 127.0.0.1\nbind interfaces only = yes\n"
                   f"smb ports = 445\nprivate dir = {own}\nlock directory = {own}\nstate directory = {own}\n"
                   f"cache directory = {own}\npid directory = {own}\nncalrpc dir = {own}\nlog file = {own}/log\n"
                   f"passdb backend = tdbsam:{own}/passdb.tdb\nload printers = no\ndisable spoolss = yes\n"
                   f"[backup]\npath = {share}\nread only = no\nforce user = root\n")
    host("smbpasswd", "-c", config, "-a", "-s", "backup", text=f"{password}\n{password}\n")
    with running(["smbd", "-F", "--no-process-group", "-s", config], 445, os.path.join(own, "smbd.log")):
        yield


@contextlib.contextmanager
def nfs(folder, share):
    """The export 10.0.2.2:/export/backup, by NFS 4."""
    own = os.path.join(folder, "nfs")
    os.makedirs(own)
    config = os.path.join(own, "ganesha.conf")
    with open(config, "w", encoding="utf-8") as file:
        # By the port alone: what else it offers has to be registered with a service that may not run.
        file.write(f'NFS_CORE_PARAM {{ Protocols = 4; NFS_Port = 2049; Bind_addr = 127.0.0.1; Enable_UDP = false; '
                   f'Enable_RQUOTA = false; Enable_NLM = false; }}\n'
                   f'NFSv4 {{ RecoveryBackend = fs; RecoveryRoot = {own}; Grace_Period = 5; Lease_Lifetime = 5; }}\n'
                   f'EXPORT {{ Export_Id = 1; Path = {share}; Pseudo = /export/backup; Access_Type = RW; '
                   f'Squash = No_Root_Squash; Protocols = 4; Transports = TCP; SecType = sys; '
                   'FSAL { Name = VFS; } }\n')
    with running(["ganesha.nfsd", "-F", "-f", config, "-L", os.path.join(own, "log"), "-p",
                  os.path.join(own, "pid")], 2049, os.path.join(own, "nfsd.log")):
        yield
