"""The command each tool runs to mirror a source folder into a destination folder of its own."""

import os

from trees import top_halves

# The peers that leave their writes in the page cache: each is timed again with a `sync` after it.
UNFLUSHED = {"cp -a", "2× cp -a", "rsync", "rclone", "rsync over ssh", "rclone sftp"}


def ferrovane_config(dest, source, archive_changed=False):
    """The destination's configuration: one source, two copy threads, removed files archived and,
    with archive_changed, replaced versions too."""
    os.makedirs(dest, exist_ok=True)
    with open(os.path.join(dest, ".ferrovane.conf"), "w") as f:
        f.write(f"""<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>settings</key><dict>
<key>syncMode</key><integer>1</integer><key>maxThreads</key><integer>2</integer>
<key>moveDeletedFiles</key><integer>1</integer>
<key>moveChangedFiles</key><integer>{int(archive_changed)}</integer>
</dict>
<key>sources</key><array><dict><key>sourcePath</key><string>{source}</string>
<key>enabled</key><integer>1</integer></dict></array>
</dict></plist>
""")


class LocalTools:
    """Every tool writing into target/<tool name>/ on the same disk as the source."""

    def __init__(self, ferrovanes):
        self.ferrovanes = ferrovanes  # {"ferrovane": binary, "baseline": binary}

    def prepare(self, source, target, tools, archive_changed=False):
        for label in tools:
            folder = os.path.join(target, label)
            if label in self.ferrovanes:
                ferrovane_config(folder, source, archive_changed)
            else:
                os.makedirs(folder, exist_ok=True)

    def mirror(self, target, label, source):
        """Where a tool's copy of source ends up."""
        return os.path.join(target, label, os.path.basename(source))

    def commands(self, source, target, archive=False):
        name = os.path.basename(source)
        out = {label: [binary, os.path.join(target, label), "-noUserNotifications"]
               for label, binary in self.ferrovanes.items()}
        rsync = ["rsync", "-aHAX", "--delete"]
        if archive:
            rsync += ["--backup", f"--backup-dir={target}/rsync-archive"]
        out["rsync"] = rsync + [source, f"{target}/rsync/"]
        rclone = ["rclone", "sync", "--links", "--transfers", "2", "--checkers", "8"]
        if archive:
            rclone += ["--backup-dir", f"{target}/rclone-archive"]
        out["rclone"] = rclone + [source, f"{target}/rclone/{name}"]
        out["cp -a"] = ["cp", "-a", source, f"{target}/cp -a/"]
        first, second = top_halves(source)
        dest = f"{target}/2× cp -a/{name}"
        # Two copiers on the two halves of the top folders: what two cores can reach.
        out["2× cp -a"] = ["sh", "-c", f'mkdir -p "$0" && (cd "$1" && cp -a {" ".join(first)} "$0" & '
                                       f'cd "$1" && cp -a {" ".join(second)} "$0" & wait)', dest, source]
        out["find"] = ["find", source]
        out["find+stat"] = ["find", source, "-printf", "%s %T@\n"]
        return out
