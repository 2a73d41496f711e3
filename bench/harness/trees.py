"""The source trees of a series and the changes made to them between rounds."""

import os
import random
import subprocess


def make_small_tree(root, count, link_groups=20, seed=7):
    """Files of 1-32 KiB, 20 to a folder, 50 folders to a top folder, with other modes and owners,
    extended attributes, ACLs and (link_groups) hard links of three names each."""
    rng = random.Random(seed)
    folders = max(1, count // 20)
    paths = []
    for i in range(count):
        d = i % folders
        folder = f"{root}/d{d // 50}/e{d}"
        os.makedirs(folder, exist_ok=True)
        path = f"{folder}/f{i}"
        with open(path, "wb") as f:
            f.write(rng.randbytes(rng.randint(1024, 32768)))
        if i % 10 == 1:
            os.chmod(path, 0o600)
        if i % 50 == 2:
            os.chown(path, 1000 + i % 7, 1000)
        if i % 100 == 3:
            os.setxattr(path, "user.tag", b"bench")
        paths.append(path)
    if paths[4::500]:
        subprocess.run(["setfacl", "-m", "u:1000:r"] + paths[4::500], check=True)
    tops = max(1, folders // 50)
    for g in range(min(link_groups, count // 97)):
        for k in (1, 2):
            os.link(paths[g * 97], f"{root}/d{(g + k) % tops}/link-{g}-{k}")


def make_big_file(path, mib):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    subprocess.run(["dd", "if=/dev/urandom", f"of={path}", "bs=1M", f"count={mib}", "status=none"], check=True)


def make_empty_files(root, count):
    """count empty files, 1,000 to a folder, 100 folders to a top folder."""
    for i in range(count):
        folder = f"{root}/d{i // 100000}/e{i // 1000}"
        if i % 1000 == 0:
            os.makedirs(folder)
        open(f"{folder}/f{i}", "w").close()


def change_two_percent(root, r):
    """Appends to 1 % of the regular files and removes another 1 %, other files in each round r."""
    files = sorted(os.path.join(base, n) for base, _, names in os.walk(root) for n in names
                   if not n.startswith("link-"))
    for path in files[r::100]:
        with open(path, "ab") as f:
            f.write(b"changed")
    for path in files[50 + r::100]:
        os.remove(path)


def top_halves(root):
    """The top folders of a tree split in two lists, for two copiers side by side."""
    names = sorted(os.listdir(root))
    return names[0::2], names[1::2]
