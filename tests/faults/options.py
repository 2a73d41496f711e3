"""Hand-edited configuration files: an option of the wrong type or out of range stops the run
before it touches the destination and names the key; a purge age of 0 never purges; source items
that cannot be used are skipped and kept as they were."""

import datetime
import os
import plistlib

from faultkit import (CONF, Mirrored, content, date_folders, expect, expect_kept, expect_mirror, log_since, log_size,
                      read_configuration, run_cases, tree_state, versions, write)

NAME = Mirrored.NAME
BOOLEANS = ("moveDeletedFiles", "moveChangedFiles", "purgeRemovedArchive", "purgeChangedArchive",
            "ignoreFileFlagChanges", "disableACLClone", "preallocate", "excludeSymlinks", "performExtendedLogging",
            "excludeCacheFolders", "excludeNodumpItems")
INTEGERS = ("syncMode", "maxThreads", "purgeRemovedArchiveDays", "purgeChangedArchiveDays")
WHEN = datetime.datetime(2020, 1, 1)
WRONG_FOR_BOOLEANS = {"string yes": "yes", "string thirty": "thirty", "array": [True], "date": WHEN,
                      "dictionary": {"value": True}}
WRONG_FOR_INTEGERS = {"string thirty": "thirty", "string 30": "30", "array": [30], "date": WHEN, "negative": -5,
                      "huge": 2**63 - 1}
# Out of range or of the wrong kind where only one option takes it; always run.
WRONG_ELSEWHERE = [("automationTimeHours", "24", 24), ("UUID", "number", 5), ("maxThreads", "0", 0),
                   ("moveDeletedFiles", "2", 2), ("syncMode", "real", 1.0), ("purgeRemovedArchiveDays", "0", 0)]
WRONG_FOR_PATTERNS = {"string": "*.tmp", "unclosed [": ["*.o", "[bad"], "number in the list": ["*.o", 3],
                      "negation": ["!keep.o"]}
OLD_STAMP = "2001-01-01 00.00.00 +0000"


class Destination(Mirrored):
    """A mirror with an old archive that a purge would remove and a source changed since, so that
    any run that went ahead would show in the tree."""

    def __init__(self, ferrovane, work):
        super().__init__(ferrovane, work, {b"f": ("file", 3000, 1), b"g": ("file", 10, 2)},
                         (("moveChangedFiles", "yes"),))
        old = os.path.join(self.destination, "__changed", OLD_STAMP, NAME)
        os.makedirs(old)
        write(os.path.join(old, "f"), b"an old version", 1_000_000_000)
        date_folders(os.path.dirname(old), 1_000_000_000)
        write(os.path.join(self.source, "f"), content(4000, 9), 2_000_000_000)
        os.unlink(os.path.join(self.source, "g"))
        self.configuration = read_configuration(self.destination)

    def write(self, settings):
        configuration = plistlib.loads(self.configuration)
        configuration["settings"].update(settings)
        write(os.path.join(self.destination, CONF), plistlib.dumps(configuration))

    def restore(self):
        write(os.path.join(self.destination, CONF), self.configuration)


def wrong_value(d, key, value):
    # The key last: it may be one of the purge switches.
    d.write({"purgeChangedArchive": True, "purgeRemovedArchive": True, key: value})
    before = tree_state(d.destination)
    offset = log_size(d.ferrovane)
    r = d.ferrovane.run(d.destination, timeout=60)
    after = tree_state(d.destination)
    said = r.stdout + r.stderr + log_since(d.ferrovane, offset)
    d.restore()
    expect(r.returncode == 255, f"exit {r.returncode}, not 255")
    expect(b"Option %s: " % key.encode() in r.stderr, f"no message names {key}: {(r.stdout + r.stderr)[-300:]}")
    expect(key != "UUID" or b"Option UUID: expected a text, found the number 5." in r.stderr, "the value is not named")
    expect(b"Sync finished" not in said, "the run went ahead")
    expect(after == before, "the destination changed")


def purge_age_zero(ferrovane, work):
    d = Destination(ferrovane, work)
    d.write({"purgeChangedArchive": True, "purgeChangedArchiveDays": 0,
             "purgeRemovedArchive": True, "purgeRemovedArchiveDays": 0})
    before = versions(d.destination)
    ferrovane.run(d.destination, timeout=60)
    expect(os.path.isdir(os.path.join(d.destination, "__changed", OLD_STAMP)), "a purge age of 0 purged")
    expect_kept(d.destination, before)


def unusable_source_items(ferrovane, work):
    """Source items the reader cannot use (not a dictionary, no sourcePath) are skipped with an
    error each, said once; the other sources are backed up, and the items stay in the file as they
    were through the run's write-back and a change by config."""
    d = Destination(ferrovane, work)
    bad = ["not a dictionary", {"enabled": 1, "sourcePathComponent": "lost"}]
    configuration = plistlib.loads(d.configuration)
    configuration["sources"] = bad[:1] + configuration["sources"] + bad[1:]
    path = os.path.join(d.destination, CONF)
    write(path, plistlib.dumps(configuration))
    r = ferrovane.run(d.destination, timeout=60)
    expect(r.returncode == 255, f"the unusable items were passed over in silence ({r.returncode})")
    first = b"ferrovane: error: Source item 1 of %s was skipped" % os.fsencode(path)
    expect(r.stderr.count(first) == 1, f"item 1 not reported once: {r.stderr[-600:]}")
    expect(b'Source item 3 of %s was skipped: it has no "sourcePath"' % os.fsencode(path) in r.stderr,
           f"item 3 not reported: {r.stderr[-600:]}")
    expect_mirror(d.source, os.path.join(d.destination, NAME))
    expect(ferrovane.config(d.destination, "add", os.path.join(work, "more")).returncode == 0, "config add failed")
    with open(path, "rb") as f:
        sources = plistlib.load(f)["sources"]
    expect(sources[0] == bad[0] and sources[2] == bad[1], "the unusable items were rewritten away")
    expect("lastBackupDate" in sources[1] and len(sources) == 4, f"the usable items are not as written: {sources}")


def run(ferrovane, work, tier, _):
    cases = [("purge age of 0", lambda w: purge_age_zero(ferrovane, w)),
             ("source items without a dictionary or sourcePath", lambda w: unusable_source_items(ferrovane, w))]
    yield from run_cases("options", cases, work)
    d = Destination(ferrovane, os.path.join(work, "wrong"))
    wrong = [(k, n, v) for k in BOOLEANS for n, v in WRONG_FOR_BOOLEANS.items()] + \
            [(k, n, v) for k in INTEGERS for n, v in WRONG_FOR_INTEGERS.items()]
    if tier == "quick":  # every option once, every kind of wrong value once
        wrong = [w for i, w in enumerate(wrong) if i % 4 == 0] + [("purgeChangedArchiveDays", "string thirty", "thirty"),
                                                                 ("moveChangedFiles", "string yes", "yes")]
    wrong += WRONG_ELSEWHERE + [("excludePatterns", n, v) for n, v in WRONG_FOR_PATTERNS.items()]
    yield from run_cases("options", [(f"{key} as {kind}", lambda _, k=key, v=value: wrong_value(d, k, v))
                                     for key, kind, value in wrong], os.path.join(work, "wrong-cases"))
