"""A libvirtd for the tests where none answers: with a configuration and a user of its own that nothing else sees."""
import os
import shutil
import signal
import subprocess
import time

URI = "qemu:///system"
# Guests run as root, since the tests' folder is root's; none of it outlives the namespace of its mounts.
SCRIPT = """set -e
mkdir -p /etc/libvirt
mount -t tmpfs none /etc/libvirt
printf '%s\\n' 'user = "root"' 'group = "root"' 'security_driver = "none"' 'dynamic_ownership = 0' \
    'remember_owner = 0' 'cgroup_controllers = [ ]' 'stdio_handler = "file"' >/etc/libvirt/qemu.conf
printf '%s\\n' 'auth_unix_rw = "none"' 'auth_unix_ro = "none"' >/etc/libvirt/libvirtd.conf
names=$(mktemp -d)
mount -t tmpfs none "$names"
cp /etc/passwd /etc/group "$names"
echo 'libvirt-qemu:x:64055:64055::/nonexistent:/usr/sbin/nologin' >>"$names/passwd"
echo 'libvirt-qemu:x:64055:' >>"$names/group"
mount --bind "$names/passwd" /etc/passwd
mount --bind "$names/group" /etc/group
umount -l "$names"
rmdir "$names"
exec libvirtd
"""


def answers():
    try:
        return subprocess.run(["virsh", "--connect", URI, "version"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0
    except OSError:
        return False


def begin():
    """The process of one that answers now; none where there is one already. Raises OSError where there can be none."""
    if answers():
        return None
    if os.geteuid() != 0 or not shutil.which("libvirtd"):
        raise OSError("no libvirtd answers, and none can be started: that needs root and libvirt-daemon")
    process = subprocess.Popen(["unshare", "--mount", "bash", "-c", SCRIPT], stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    for _ in range(300):
        if answers():
            return process
        if process.poll() is not None:
            break
        time.sleep(0.1)
    end(process)
    raise OSError("libvirtd does not answer")


def end(process):
    if process and process.poll() is None:
        process.send_signal(signal.SIGTERM)
    if process:
        process.wait()
