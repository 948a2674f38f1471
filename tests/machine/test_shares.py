"""Images that lie on a share: made there, verified there, and restored from there."""
import os

import servers
from cases import MIB, ROOT, Disk, Machine, blank, case, digest, host, noise, past_firmware, reach_prompt, stick
from test_bad_day import answer_restore
from test_faults import NUMBER

GROUP = "Shares"
PASSWORD = "of the share"
DISK_MIB = 40
# Each: the kind of share, and what mounts it.
SHARES = [("nfs", "mount -t nfs nas:/export/backup /mnt"),
          ("cifs", f"mount -t cifs -o username=backup,password='{PASSWORD}' //nas/backup /mnt")]


@case(GROUP, "a disk captured onto an NFS and an SMB share, verified there, and restored from there by the guided "
             "restore")
def test_shares(folder):
    source = noise(os.path.join(folder, "source"), DISK_MIB * MIB, 20)
    share = os.path.join(folder, "share")
    os.makedirs(share)
    targets = {kind: Disk(blank(os.path.join(folder, kind + ".disk"), DISK_MIB * MIB), "virtio", f"TARGET-{kind}")
               for kind, _ in SHARES}
    with servers.smb(folder, share, PASSWORD), servers.nfs(folder, share), \
            Machine(os.path.join(folder, "line.log"), [Disk(source, "virtio", "SOURCE"), *targets.values(), stick()],
                    past_firmware(), network=True) as machine:
        reach_prompt(machine)
        machine.run("echo '10.0.2.2 nas' >>/etc/hosts; network", seconds=90)
        for kind, mount in SHARES:
            machine.run(f"{mount} && findmnt -t {kind}4,{kind} /mnt && mkdir /mnt/{kind}", seconds=90)
            machine.run(f"kestrix capture --disk {NUMBER.format('SOURCE')} --out /mnt/{kind}/disk.kstx", seconds=180)
            machine.run(f"kestrix verify --in /mnt/{kind}/disk.kstx", seconds=180)
            machine.type("restore")
            answer_restore(machine, f"TARGET-{kind}", folder=f"/mnt/{kind}")
            machine.expect("# $")
            machine.run("umount /mnt", seconds=90)
        machine.type("poweroff")
        machine.wait_until_off()
    for target in targets.values():
        assert digest(target.path) == digest(source), target.serial
    # What came over the network is a file like any other here.
    host(os.path.join(ROOT, "build", "linux", "kestrix"), "verify", "--in", os.path.join(share, "nfs", "disk.kstx"))
