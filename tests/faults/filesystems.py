"""Destination file systems made in loop images: ext4, btrfs and xfs in the kernel, exFAT, NTFS and
FAT through their FUSE drivers; and a folder of an ssh server mounted with sshfs, as a NAS is. On
each, a backup with both archives on: the probe reports what the file system holds, a changed and
a removed file reach the archives, names that differ only in case or that the file system refuses
are errors that overwrite nothing, owners and modes, hard links and attributes it cannot keep are
said once, a dry run leaves the destination as it was, and the next clean run copies nothing."""

import os
import re
import subprocess
from contextlib import contextmanager

from faultkit import (FIXED_MTIME, attempt, build, content, digest, expect, expect_kept, expect_status, log_since,
                      log_size, mirror_differences, mounted, require, run_cases, tail, versions, write)

NAME = "data"
OPTIONS = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"), ("ignoreFileFlagChanges", "no"))
TREE = {b"Report.txt": ("file", 3000, 1), b"report.txt": ("file", 4000, 2),
        b"Docs": ("dir",), b"Docs/a": ("file", 100, 3), b"docs": ("dir",), b"docs/b": ("file", 200, 4),
        b"plain": ("dir",), b"plain/changing.txt": ("file", 5000, 5), b"plain/gone.txt": ("file", 600, 6),
        b"odd:name": ("file", 10, 7), b"private": ("dir",), b"private/key": ("file", 70, 8),
        b"private/link": ("link", b"key"), b"private/up": ("link", b"../plain/changing.txt"),
        b"private/away": ("link", b"/etc/hostname"), b"Case.txt": ("file", 30, 9), b"gone-at-root": ("file", 40, 10)}
PRIVATE = {b"private": 0o700, b"private/key": 0o600}
CASE_PAIRS = ((b"Report.txt", b"report.txt"), (b"Docs", b"docs"))
CANNOT_KEEP = b"cannot keep owners and modes"
UNKEPT_LINKS, UNKEPT_ATTRIBUTES = b"cannot keep hard links", b"cannot keep extended attributes"


class FileSystem:
    """How to make and mount one kind, and what its probe must find."""

    def __init__(self, name, tools, size_mb, mkfs, mount, probe, keeps_metadata, case_insensitive, refuses_colon,
                 links=True, hard_links=True, attributes=True):
        self.name, self.tools, self.size_mb, self.mkfs, self.mount = name, tools, size_mb, mkfs, mount
        self.probe, self.keeps_metadata = probe, keeps_metadata
        self.case_insensitive, self.refuses_colon, self.links = case_insensitive, refuses_colon, links
        self.hard_links, self.attributes = hard_links, attributes

    @contextmanager
    def mounted(self, work):
        """An image of this kind made in work and mounted at work/mnt."""
        require(*self.tools)
        image, mnt = os.path.join(work, "image"), os.path.join(work, "mnt")
        with open(image, "wb") as f:
            f.truncate(self.size_mb << 20)
        attempt([*self.mkfs, image], self.mkfs[0])
        with self.mount(image, mnt):
            yield mnt


class Sshfs(FileSystem):
    """A folder of an ssh server on the loopback address, mounted with sshfs. Its server follows a
    link where it sets an owner or times: a copied link must not pass its own to its target."""

    PORT = 2229

    def __init__(self):
        super().__init__("sshfs", ("sshfs", "/usr/sbin/sshd", "ssh-keygen"), 0, None, None,
                         ("times to 1 s", "no extended attributes", "no hard links"), True, False, False,
                         hard_links=False, attributes=False)

    @contextmanager
    def mounted(self, work):
        require(*self.tools)
        home, mnt = os.path.join(work, "home"), os.path.join(work, "mnt")
        for folder in (home, "/run/sshd"):
            os.makedirs(folder, exist_ok=True)
        for key in ("host", "client"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", os.path.join(work, key)], check=True)
        config = os.path.join(work, "sshd_config")
        write(config, f"ListenAddress 127.0.0.1\nPort {self.PORT}\nHostKey {work}/host\nAuthorizedKeysFile {work}/client.pub\n"
              f"PermitRootLogin prohibit-password\nPasswordAuthentication no\nStrictModes no\nUsePAM no\n"
              f"PidFile {work}/sshd.pid\nSubsystem sftp internal-sftp\n".encode())
        # Without -D sshd returns once it listens (or fails to: the port is taken).
        attempt(["/usr/sbin/sshd", "-f", config, "-E", os.path.join(work, "sshd.log")], "sshd")
        try:
            # Without caches, what a run did on the server shows at once.
            with mounted(["sshfs", "-o", f"IdentityFile={work}/client,port={self.PORT},StrictHostKeyChecking=no,"
                          "UserKnownHostsFile=/dev/null,dir_cache=no,attr_timeout=0", f"root@127.0.0.1:{home}", mnt], mnt):
                yield mnt
        finally:
            os.kill(int(open(os.path.join(work, "sshd.pid")).read()), 15)


def kernel_mount(image, mnt):
    return mounted(["mount", "-o", "loop", image, mnt], mnt)


def block_fuse(driver):
    """exfat-fuse and ntfs-3g want a block device: a loop device over the image."""
    @contextmanager
    def mount(image, mnt):
        device = attempt(["losetup", "-f", "--show", image], "losetup")
        try:
            with mounted([driver, device, mnt], mnt):
                yield
        finally:
            subprocess.run(["losetup", "-d", device], capture_output=True)
    return mount


def fusefat_mount(image, mnt):
    # fusefat mounts read-only unless told "rw+".
    return mounted(["fusefat", "-o", "rw+", image, mnt], mnt)


EXACT = ("exact times", "case-sensitive")
FILESYSTEMS = (
    FileSystem("ext4", ("mkfs.ext4",), 32, ["mkfs.ext4", "-q", "-F"], kernel_mount, EXACT, True, False, False),
    FileSystem("btrfs", ("mkfs.btrfs",), 128, ["mkfs.btrfs", "-q", "-f"], kernel_mount, EXACT, True, False, False),
    FileSystem("xfs", ("mkfs.xfs",), 320, ["mkfs.xfs", "-q", "-f"], kernel_mount, EXACT, True, False, False),
    FileSystem("exfat", ("mkfs.exfat", "mount.exfat-fuse", "losetup"), 32, ["mkfs.exfat"],
               block_fuse("mount.exfat-fuse"),
               ("times to 1 s", "case-insensitive", "no rename that refuses to replace", "no owners, no modes"),
               False, True, True, links=False, hard_links=False, attributes=False),
    FileSystem("ntfs", ("mkntfs", "ntfs-3g", "losetup"), 32, ["mkntfs", "-F", "-Q"], block_fuse("ntfs-3g"),
               ("times to 100 ns", "case-sensitive", "no rename that refuses to replace", "no owners, no modes"),
               False, False, False),
    FileSystem("fat", ("mkfs.vfat", "fusefat"), 32, ["mkfs.vfat"], fusefat_mount,
               ("times to 2 s", "case-insensitive", "no rename that refuses to replace", "renames reset times",
                "no owners, no modes"),
               False, True, True, links=False, hard_links=False, attributes=False),
    Sshfs(),
)


EXFAT = next(f for f in FILESYSTEMS if f.name == "exfat")


def refused(fs):
    """The source entries the destination refuses outright."""
    return ([b"odd:name"] if fs.refuses_colon else []) + ([] if fs.links else [b"private/link", b"private/up", b"private/away"])


def later_names(fs, mirror):
    """Of each pair that differs only in case, the one the mirror does not hold."""
    if not fs.case_insensitive:
        return []
    held = set(os.listdir(os.fsencode(mirror)))
    out = []
    for a, b in CASE_PAIRS:
        expect((a in held) != (b in held), f"the mirror holds {sorted(held)}: not exactly one of {a!r} and {b!r}")
        out.append(b if a in held else a)
    return out


def same_contents(source, mirror, skipped, case_insensitive):
    """Every source file and link but the skipped ones is in the mirror with its bytes, and the
    mirror holds no other (for file systems that cannot hold the metadata rsync compares). A link
    the mount will not read back is known by its length."""
    def held(root):
        return {rel.lower() if case_insensitive else rel: v for rel, v in versions(root).items()
                if not any(rel == s or rel.startswith(s + b"/") for s in skipped)}
    wanted, found = held(source), held(mirror)
    for rel, v in wanted.items():
        if v and v.startswith(b"link:") and found.get(rel, b"").startswith(b"link of "):
            wanted[rel] = b"link of %d bytes" % (len(v) - len(b"link:"))
    differ = sorted(rel for rel in wanted.keys() | found.keys() if wanted.get(rel) != found.get(rel))
    expect(not differ, f"the mirror's contents differ from the source: {differ[:6]}")


def stamp_folders(destination):
    archives = [os.path.join(destination, a) for a in ("__changed", "__removed")]
    return sorted(os.path.join(a, s) for a in archives if os.path.isdir(a) for s in os.listdir(a))


def root_state(path):
    st = os.stat(path)
    return st.st_mtime_ns, st.st_ctime_ns, sorted(os.listdir(path))


def backups(ferrovane, fs, mnt, work):
    source = os.path.join(work, "src", NAME)
    build(os.fsencode(source), TREE)
    for rel, mode in PRIVATE.items():
        os.chmod(os.path.join(os.fsencode(source), rel), mode)
    # An attribute the destination may not hold must not make every run copy the file again.
    os.setxattr(os.path.join(source, "private", "key"), "user.note", b"kept where it can be")
    # Nor must a second name of a file, or a link dated apart from its target (whose date a server
    # that follows links would change instead).
    os.link(os.path.join(source, "plain", "changing.txt"), os.path.join(source, "plain", "same.txt"))
    os.utime(os.path.join(source, "private", "link"), (FIXED_MTIME + 7, FIXED_MTIME + 7), follow_symlinks=False)
    destination = os.path.join(mnt, "dest")
    os.makedirs(destination)
    ferrovane.configure(destination, [source], OPTIONS)
    mirror = os.path.join(destination, NAME)
    # A warning where the destination cannot keep what the sources hold.
    status = 255 if fs.case_insensitive or fs.refuses_colon else 0 if fs.hard_links and fs.attributes else 1

    # The first run: what the probe found, the names the destination cannot hold, one note.
    offset = log_size(ferrovane)
    r = ferrovane.run(destination)
    out, log = r.stdout + r.stderr, log_since(ferrovane, offset)
    expect(r.returncode == status, f"first run exit {r.returncode}: {tail(r)}")
    unholdable = refused(fs) + later_names(fs, mirror)
    for name in unholdable:
        said = out.count(b"Cannot back up " + os.path.join(os.fsencode(source), name) + b":")
        expect(said == 1, f"{name!r} named {said} times in the run's errors: {tail(r)}")
    for a, b in CASE_PAIRS:
        kept = a if b in unholdable else b
        path = os.path.join(os.fsencode(mirror), kept)
        if os.path.isfile(path):
            expect(digest(path) == digest(os.path.join(os.fsencode(source), kept)), f"{kept!r} holds other bytes")
    notes = out.count(CANNOT_KEEP), log.count(CANNOT_KEEP)
    expect(notes == ((0, 0) if fs.keeps_metadata else (1, 1)), f"the note on owners and modes came {notes} times")
    for said, kept in ((UNKEPT_LINKS, fs.hard_links), (UNKEPT_ATTRIBUTES, fs.attributes)):
        counts = out.count(said), log.count(said)
        expect(counts == ((0, 0) if kept else (1, 1)), f"{said!r} came {counts} times")
    expect(b"Could not preserve" not in log, "metadata warnings per file")
    key = os.stat(os.path.join(mirror, "private", "key")).st_mtime
    expect(abs(key - FIXED_MTIME) <= 2, f"the mirror's private/key is dated {key}: a link's date reached its target")

    # A changed and a removed file reach the archives.
    before = versions(destination)
    changed = os.path.join(source, "plain", "changing.txt")
    write(changed, content(5100, 50), 2_000_000_000)
    os.unlink(os.path.join(source, "plain", "gone.txt"))
    # The cleanup looks at the root's mirror too: the twins' mirror stays, and so does the mirror
    # of a file renamed only in case where the destination does not tell cases apart.
    os.unlink(os.path.join(source, "gone-at-root"))
    os.rename(os.path.join(source, "Case.txt"), os.path.join(source, "CASE.txt"))
    r = ferrovane.run(destination)
    expect(r.returncode == status, f"second run exit {r.returncode}: {tail(r)}")
    expect(b"Archiving" not in r.stderr, f"an archive move failed: {tail(r)}")
    expect_kept(destination, before)
    for archive, rel in (("__changed", b"plain/changing.txt"), ("__removed", b"plain/gone.txt")):
        expect(any(os.path.isfile(os.path.join(os.fsencode(s), NAME.encode(), rel))
                   for s in stamp_folders(destination) if f"/{archive}/" in s), f"{rel!r} is not in {archive}")
    empty = [s for s in stamp_folders(destination) if not any(names for _, _, names in os.walk(s))]
    expect(not empty, f"archive folders without a file: {empty}")

    # A dry run changes nothing, not even the root's dates.
    state = root_state(destination)
    r = ferrovane.command(destination, "-noUserNotifications", "--dry-run")
    expect(r.returncode in (0, 255), f"dry run exit {r.returncode}: {tail(r)}")
    expect(root_state(destination) == state, "the dry run changed the destination's root")

    # The next clean run changes nothing, and the mirror equals the source where it can.
    before, stamps = versions(destination), stamp_folders(destination)
    r = ferrovane.run(destination)
    expect(r.returncode == status, f"clean run exit {r.returncode}: {tail(r)}")
    expect(versions(destination) == before and stamp_folders(destination) == stamps, "the clean run changed something")
    expect(b", copied 0 (" in r.stdout, f"the clean run copied: {tail(r)}")
    if fs.keeps_metadata and fs.hard_links and fs.attributes:
        diff = mirror_differences(source, mirror)
        expect(diff == "", f"mirror differs from source:\n{diff[:2000]}")
    else:
        same_contents(source, mirror, set(unholdable), fs.case_insensitive)

    # A restore that moves a different file aside, on the same file system.
    target = os.path.join(mnt, "restored")
    os.makedirs(target)
    write(os.path.join(target, "changing.txt"), b"another version")
    expect_status(ferrovane.command("restore", destination, changed, "--to", target, "--replace", timeout=60), 0,
                  "restore with --replace")
    expect(digest(os.path.join(target, "changing.txt")) == digest(changed), "the restore did not bring the version back")
    # Links come back as they were, also those the mount will not read back (see version()).
    if fs.links:
        elsewhere = os.path.join(work, "restored")
        os.makedirs(elsewhere)
        expect_status(ferrovane.command("restore", destination, os.path.join(source, "private"), "--to", elsewhere,
                                        timeout=60), 0, "restore of links")
        for name in ("link", "up", "away"):
            back, original = os.path.join(elsewhere, "private", name), os.path.join(source, "private", name)
            expect(os.path.islink(back) and os.readlink(back) == os.readlink(original), f"private/{name} came back wrong")

    line = re.search(rb"Destination file system: (.*)", log)
    expect(line is not None, "no line with what the probe found")
    missing = [p for p in fs.probe if p.encode() not in line.group(1)]
    expect(not missing, f"the probe said {line.group(1)!r}, lacking {missing}")


def run(ferrovane, work, *_):
    def body(fs, folder):
        with fs.mounted(folder) as mnt:
            backups(ferrovane, fs, mnt, folder)
    yield from run_cases("filesystems", [(f"{fs.name}: probe, archives, case twins and refused names, owners and modes, "
                                          "dry run, rerun, restore", lambda w, fs=fs: body(fs, w)) for fs in FILESYSTEMS],
                         work, root_only=lambda _: True, why="needs the superuser to mount images")
