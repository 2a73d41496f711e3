"""A network destination served from this machine: an ssh server on the loopback address, its
folder mounted with sshfs for ferrovane, and the same account for rsync over ssh and rclone's
sftp remote. The kernel would need nfsd for an NFS export; describe() says whether it has it."""

import os
import socket
import subprocess
import time

from tools import ferrovane_config

PORT = 2227


def nfs_available():
    return any(line.split()[-1] == "nfsd" for line in open("/proc/filesystems"))


class Latency:
    """1 ms added to every packet on the loopback device, as a network between two machines
    would, if the kernel has netem; refusal holds tc's message otherwise."""

    def __init__(self):
        added = subprocess.run(["tc", "qdisc", "add", "dev", "lo", "root", "netem", "delay", "1ms"],
                               capture_output=True, text=True)
        self.refusal = None if added.returncode == 0 else (added.stderr.strip() or f"tc exited {added.returncode}")
        self.active = added.returncode == 0

    def remove(self):
        if self.active:
            subprocess.run(["tc", "qdisc", "del", "dev", "lo", "root"], check=True)
            self.active = False


class SshServer:
    """sshd on 127.0.0.1 with keys of its own, serving `home` to root by key only."""

    def __init__(self, folder):
        self.folder = folder
        self.home = os.path.join(folder, "home")
        self.mount = os.path.join(folder, "mnt")
        self.key = os.path.join(folder, "client_key")
        self.rclone_config = os.path.join(folder, "rclone.conf")
        self.ssh = (f"ssh -i {self.key} -p {PORT} -o StrictHostKeyChecking=no "
                    f"-o UserKnownHostsFile=/dev/null -o LogLevel=ERROR")

    def start(self):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", PORT)) == 0:
                raise RuntimeError(f"something already listens on 127.0.0.1:{PORT}: stop it first")
        os.makedirs(self.home)
        os.makedirs(self.mount)
        os.makedirs("/run/sshd", exist_ok=True)
        for key in ("host_key", "client_key"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", os.path.join(self.folder, key)],
                           check=True)
        config = os.path.join(self.folder, "sshd_config")
        with open(config, "w") as f:
            f.write(f"ListenAddress 127.0.0.1\nPort {PORT}\nHostKey {self.folder}/host_key\n"
                    f"AuthorizedKeysFile {self.key}.pub\nPermitRootLogin prohibit-password\n"
                    f"PasswordAuthentication no\nStrictModes no\nUsePAM no\nPidFile {self.folder}/sshd.pid\n"
                    f"Subsystem sftp internal-sftp\n")
        subprocess.run(["/usr/sbin/sshd", "-f", config, "-E", os.path.join(self.folder, "sshd.log")], check=True)
        for _ in range(50):
            if subprocess.run(self.ssh.split() + ["root@127.0.0.1", "true"], stderr=subprocess.DEVNULL).returncode == 0:
                break
            time.sleep(0.1)
        else:
            raise RuntimeError(f"the ssh server does not let the key in: see {self.folder}/sshd.log")
        subprocess.run(["sshfs", "-o", f"IdentityFile={self.key},port={PORT},StrictHostKeyChecking=no,"
                        f"UserKnownHostsFile=/dev/null", f"root@127.0.0.1:{self.home}", self.mount], check=True)
        with open(self.rclone_config, "w") as f:
            f.write(f"[nas]\ntype = sftp\nhost = 127.0.0.1\nport = {PORT}\nuser = root\n"
                    f"key_file = {self.key}\nknown_hosts_file =\n")

    def stop(self):
        subprocess.run(["fusermount3", "-u", self.mount])
        pid_file = os.path.join(self.folder, "sshd.pid")
        if os.path.exists(pid_file):
            os.kill(int(open(pid_file).read()), 15)


class NasTools:
    """ferrovane and cp -a write through the sshfs mount; rsync and rclone speak ssh themselves.
    Every tool's files land in home/<target>/<tool>/ on the server."""

    def __init__(self, server, ferrovanes):
        self.server = server
        self.ferrovanes = ferrovanes

    def prepare(self, source, target, tools, archive_changed=False):
        for label in tools:
            folder = os.path.join(self.server.mount, target, label)
            if label in self.ferrovanes:
                ferrovane_config(folder, source, archive_changed)
            else:
                os.makedirs(folder, exist_ok=True)

    def mirror(self, target, label, source):
        """The server's own path of a tool's copy of source."""
        return os.path.join(self.server.home, target, label, os.path.basename(source))

    def commands(self, source, target, archive=False):
        name = os.path.basename(source)
        remote = os.path.join(self.server.home, target)
        out = {label: [binary, os.path.join(self.server.mount, target, label), "-noUserNotifications"]
               for label, binary in self.ferrovanes.items()}
        rsync = ["rsync", "-aHAXs", "--delete", "-e", self.server.ssh]
        if archive:
            rsync += ["--backup", f"--backup-dir={remote}/rsync over ssh-archive"]
        out["rsync over ssh"] = rsync + [source, f"root@127.0.0.1:{remote}/rsync over ssh/"]
        # Without --sftp-disable-hashcheck rclone runs md5sum on the server through a new ssh
        # session per file: 30 times slower here, which would flatter everyone beside it.
        rclone = ["rclone", "--config", self.server.rclone_config, "sync", "--transfers", "2", "--checkers", "8",
                  "--sftp-disable-hashcheck"]
        if archive:
            rclone += ["--backup-dir", f"nas:{remote}/rclone sftp-archive"]
        out["rclone sftp"] = rclone + [source, f"nas:{remote}/rclone sftp/{name}"]
        out["cp -a"] = ["cp", "-a", source, os.path.join(self.server.mount, target, "cp -a") + "/"]
        return out
